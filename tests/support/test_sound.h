#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// The sound that the paced capture plays: a loop of blocks that keeps an encoder busy. The first
/// two frames of a block are overwritten with the time of the callback before it is sent.
namespace testsound {

constexpr std::size_t BLOCK_FRAMES = 338;
constexpr std::size_t BLOCKS = 1000;  ///< Length of the loop.
constexpr std::size_t STAMP_BYTES = 8;

/// All blocks of the loop, interleaved stereo; the same on every call.
std::vector<std::int16_t> make();

}  // namespace testsound
