#pragma once

#include <cstddef>
#include <cstdint>

namespace vxlisten {

/// Fewest frames that stretch() can make longer, and most that it adds.
constexpr std::size_t STRETCH_LEAST_FRAMES = 300;
constexpr std::size_t STRETCH_MOST_ADDED = 240;

/// Copies `count` stereo frames (at most the 480 of a packet) to `target` with a piece near their
/// end played twice. The piece is as long as the sound repeats itself best and faded over, so that
/// the pitch stays and no step is heard. Returns the number of frames written, at most
/// STRETCH_MOST_ADDED more than `count`; with fewer than STRETCH_LEAST_FRAMES none are added.
/// Pure. Realtime-safe: yes.
std::size_t stretch(const std::int16_t* frames, std::size_t count, std::int16_t* target);

}  // namespace vxlisten
