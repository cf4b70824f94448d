#pragma once

#include <cstdint>
#include <optional>

namespace vxlisten {

/// What the playing side adds to the figures.
struct Playback {
    bool device = true;              ///< False while the output device is away. Display only.
    bool playing = false;            ///< False while it fills its buffer.
    double bufferMs = 0;             ///< Sound that waits to be played, a mean over some seconds.
    double targetMs = 0;             ///< How much should wait.
    double jitterMs = 0;             ///< How uneven packets come.
    double outputLatencyMs = 0;      ///< Of the output device, as it says itself.
    double correctionPpm = 0;        ///< How much faster than nominal it plays.
    std::optional<double> delayMs;   ///< From the sending to the loudspeaker, while it plays.
    std::optional<double> inStepMs;  ///< How late the sound is, where a delay is to be kept.
    std::uint64_t concealed = 0;     ///< Packets that something else was played for.
    std::uint64_t skipped = 0;       ///< Packets left out to catch up.
    std::uint64_t stretched = 0;     ///< Packets played longer, to buffer more.
    std::uint64_t deviceUnderruns = 0;  ///< Those among the underruns that the device had.
    std::uint64_t underruns = 0;        ///< Times that the sound ran dry.
};

}  // namespace vxlisten
