#include "listen/audio/fades.h"

#include <cmath>

namespace vxlisten {

namespace {

constexpr std::size_t CHANNELS = 2;

std::int16_t scaled(double value) {
    return static_cast<std::int16_t>(std::lround(value));
}

}  // namespace

void fade(std::int16_t* frames, std::size_t count, double from, double to) {
    for (std::size_t i = 0; i < count; ++i) {
        const double gain =
            from + (to - from) * static_cast<double>(i) / static_cast<double>(count);
        for (std::size_t c = 0; c < CHANNELS; ++c) {
            frames[i * CHANNELS + c] = scaled(gain * frames[i * CHANNELS + c]);
        }
    }
}

void crossfade(std::int16_t* frames, const std::int16_t* other, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const double gain = static_cast<double>(i) / static_cast<double>(count);
        for (std::size_t c = 0; c < CHANNELS; ++c) {
            const std::size_t at = i * CHANNELS + c;
            frames[at] = scaled(gain * frames[at] + (1.0 - gain) * other[at]);
        }
    }
}

void mirror(const std::int16_t* source, std::int16_t* target, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        for (std::size_t c = 0; c < CHANNELS; ++c) {
            target[i * CHANNELS + c] = source[(count - 1 - i) * CHANNELS + c];
        }
    }
}

}  // namespace vxlisten
