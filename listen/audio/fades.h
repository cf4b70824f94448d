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

/// Writes the frames of `source` in reverse order to `target`: a continuation of `source` without
/// a step. Realtime-safe: yes.
void mirror(const std::int16_t* source, std::int16_t* target, std::size_t count);

}  // namespace vxlisten
