#pragma once

#include <cstddef>
#include <cstdint>

namespace vxlisten {

/// Changes the volume of `count` interleaved stereo frames evenly from `from` to `to` (0 to 1).
/// Realtime-safe: yes.
void fade(std::int16_t* frames, std::size_t count, double from, double to);

/// Fades `frames` in over their length while `other`, of the same length, fades out into them.
/// Realtime-safe: yes.
void crossfade(std::int16_t* frames, const std::int16_t* other, std::size_t count);

/// Turns the order of `count` stereo frames round, so that they go on without a step from where
/// they ended. Realtime-safe: yes.
void mirror(std::int16_t* frames, std::size_t count);

/// Most frames that stretch() adds.
constexpr std::size_t STRETCH_MAXIMUM_ADDED = 240;

/// Copies `count` stereo frames (at most the 480 of a packet) to `target` with a piece near their
/// end played twice. The piece is as long as the sound repeats itself best and faded over, so that
/// the pitch stays and no step is heard; a block that is too short for that stays as it is. Returns
/// the number of frames written, at most STRETCH_MAXIMUM_ADDED more than `count`. Pure.
/// Realtime-safe: yes.
std::size_t stretch(const std::int16_t* frames, std::size_t count, std::int16_t* target);

}  // namespace vxlisten
