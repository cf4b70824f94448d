#include "stream/opus_bank.h"

#include <cassert>
#include <cstdint>

#include "app/base/console.h"
#include "stream/capture_thread.h"
#include "stream/wire_format.h"

std::array<OpusEncoder*, OPUS_BANK_SIZE> opusEnc{};

namespace {

constexpr int ENCODER_RATE = 48000;
constexpr int ENCODER_CHANNELS = 2;

OpusEncoder* createEncoder(std::uint32_t rateCode) {
    int error = OPUS_OK;
    OpusEncoder* const encoder =
        opus_encoder_create(ENCODER_RATE, ENCODER_CHANNELS, OPUS_APPLICATION_AUDIO, &error);
    if (encoder == nullptr || error != OPUS_OK) {
        consolePrintf("Warning, could not initialize Opus encoder %d (%s)\n",
                      static_cast<int>(rateCode), opus_strerror(error));
        return nullptr;
    }
    opus_encoder_ctl(encoder, OPUS_SET_BITRATE(wire::bitRateOf(rateCode)));
    opus_encoder_ctl(encoder, OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
    return encoder;
}

}  // namespace

void fillOpusBank() {
    assert(!captureThread.elsewhere());
    for (std::uint32_t rateCode = 0; rateCode < OPUS_BANK_SIZE; ++rateCode) {
        opusEnc[rateCode] = wire::bitRateOf(rateCode) > 0 ? createEncoder(rateCode) : nullptr;
    }
}
