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

/// Reverses the order of `count` stereo frames, so that they continue without a step after
/// themselves. Realtime-safe: yes.
void mirror(std::int16_t* frames, std::size_t count);

/// Maximum number of frames that stretch() adds.
constexpr std::size_t STRETCH_MAXIMUM_ADDED = 240;

/// Copies `count` stereo frames (at most 480) to `target` and repeats a piece near their end. The
/// piece is a period of the sound, with a crossfade, so that pitch and waveform stay smooth; a
/// block that is too short is only copied. Returns the number of frames written, at most
/// STRETCH_MAXIMUM_ADDED more than `count`. Pure. Realtime-safe: yes.
std::size_t stretch(const std::int16_t* frames, std::size_t count, std::int16_t* target);

}  // namespace vxlisten
