#pragma once

#include <array>
#include <cstddef>

#include <opus/opus.h>

constexpr std::size_t OPUS_BANK_SIZE = 6;

/// One encoder per rate code, null where the code has none. Filled by the network thread before
/// the capture starts, then used by the capture thread only; never destroyed.
extern std::array<OpusEncoder*, OPUS_BANK_SIZE> opusEnc;

/// Creates the encoders for rate codes 1, 2, 3 and 5 (48000 Hz, stereo, music). One that cannot
/// be created is reported and left null. Thread: network.
void fillOpusBank();
