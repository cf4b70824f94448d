#include "listen/audio/splicing.h"

#include <algorithm>
#include <cmath>

namespace vxlisten {

namespace {

constexpr std::size_t CHANNELS = 2;
constexpr std::size_t STRETCH_MINIMUM_FRAMES = 300;
constexpr std::size_t FADE_FRAMES = 60;
constexpr std::size_t MINIMUM_LAG = 100;

std::int16_t scaled(double value) {
    return static_cast<std::int16_t>(std::lround(value));
}

double monoAt(const std::int16_t* frames, std::size_t at) {
    return static_cast<double>(frames[at * CHANNELS]) + frames[at * CHANNELS + 1];
}

/// How similar the last FADE_FRAMES frames and those `lag` frames earlier are; 1: equal.
double similarity(const std::int16_t* frames, std::size_t count, std::size_t lag) {
    double together = 0;
    double here = 1e-9;
    double there = 1e-9;
    for (std::size_t i = count - FADE_FRAMES; i < count; ++i) {
        const double a = monoAt(frames, i);
        const double b = monoAt(frames, i - lag);
        together += a * b;
        here += a * a;
        there += b * b;
    }
    return together / std::sqrt(here * there);
}

std::size_t bestLag(const std::int16_t* frames, std::size_t count) {
    std::size_t best = MINIMUM_LAG;
    double bestSimilarity = -2;
    const std::size_t last = std::min(STRETCH_MAXIMUM_ADDED, count - FADE_FRAMES);
    for (std::size_t lag = MINIMUM_LAG; lag <= last; ++lag) {
        const double candidate = similarity(frames, count, lag);
        if (candidate > bestSimilarity) {
            bestSimilarity = candidate;
            best = lag;
        }
    }
    return best;
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

void mirror(std::int16_t* frames, std::size_t count) {
    for (std::size_t i = 0; i < count / 2; ++i) {
        std::swap_ranges(frames + i * CHANNELS, frames + (i + 1) * CHANNELS,
                         frames + (count - 1 - i) * CHANNELS);
    }
}

std::size_t stretch(const std::int16_t* frames, std::size_t count, std::int16_t* target) {
    std::copy_n(frames, count * CHANNELS, target);
    if (count < STRETCH_MINIMUM_FRAMES) {
        return count;
    }
    const std::size_t lag = bestLag(frames, count);
    // The end fades into the sound of `lag` frames earlier, which then plays again up to the end.
    std::int16_t* const faded = target + (count - FADE_FRAMES) * CHANNELS;
    const std::int16_t* const again = frames + (count - FADE_FRAMES - lag) * CHANNELS;
    std::copy_n(again, (FADE_FRAMES + lag) * CHANNELS, faded);
    crossfade(faded, frames + (count - FADE_FRAMES) * CHANNELS, FADE_FRAMES);
    return count + lag;
}

}  // namespace vxlisten
