#pragma once

#include <cstdint>
#include <optional>

namespace vxlisten {

/// The figures of the playing side.
struct Playback {
    bool device = true;              ///< False while the output device is away. Display only.
    bool playing = false;            ///< False while it fills its buffer.
    double bufferMs = 0;             ///< Sound that waits to be played, a mean over some seconds.
    double targetMs = 0;             ///< How much should wait.
    double jitterMs = 0;             ///< How late nearly all packets are at most.
    double outputLatencyMs = 0;      ///< Reported by the output device.
    double correctionPpm = 0;        ///< How much faster than nominal it plays.
    std::optional<double> delayMs;   ///< From the sending to the loudspeaker, while it plays.
    std::optional<double> inStepMs;  ///< How late the sound is, with --delay.
    std::uint64_t concealed = 0;     ///< Packets that were replaced.
    std::uint64_t skipped = 0;       ///< Packets dropped to catch up.
    std::uint64_t stretched = 0;     ///< Packets played longer, to buffer more.
    std::uint64_t deviceUnderruns = 0;  ///< Underruns of the device, which `underruns` includes.
    std::uint64_t underruns = 0;        ///< All underruns.
};

}  // namespace vxlisten
