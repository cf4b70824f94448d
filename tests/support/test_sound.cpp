#include "tests/support/test_sound.h"

#include <cmath>

namespace testsound {

std::vector<std::int16_t> make() {
    constexpr double SAMPLE_RATE = 48000;
    std::vector<std::int16_t> sound(BLOCKS * BLOCK_FRAMES * 2);
    unsigned noise = 1;
    for (std::size_t frame = 0; frame < sound.size() / 2; ++frame) {
        const double t = static_cast<double>(frame) / SAMPLE_RATE;
        noise = noise * 1664525U + 1013904223U;
        const double hiss = static_cast<double>(noise >> 20U) / 4.0 - 512;
        const double swell = 0.6 + 0.4 * std::sin(2 * M_PI * 0.7 * t);
        const double left =
            swell * (7000 * std::sin(2 * M_PI * 440 * t) + 4000 * std::sin(2 * M_PI * 1318 * t));
        const double right = swell * 8000 * std::sin(2 * M_PI * 554 * t);
        sound[2 * frame] = static_cast<std::int16_t>(left + hiss);
        sound[2 * frame + 1] = static_cast<std::int16_t>(right + hiss);
    }
    return sound;
}

}  // namespace testsound
