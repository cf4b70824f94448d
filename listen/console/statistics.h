#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "listen/audio/level_meter.h"

namespace vxlisten {

/// What the playing side adds to the figures.
struct Playback {
    bool device = true;           ///< False while the output device is away. Display only.
    bool playing = false;         ///< False while it fills its buffer.
    double bufferMs = 0;          ///< Sound that waits to be played, a mean over some seconds.
    double targetMs = 0;          ///< How much should wait.
    double jitterMs = 0;          ///< How uneven packets come.
    double outputLatencyMs = 0;   ///< Of the output device, as it says itself.
    double correctionPpm = 0;     ///< How much faster than nominal it plays.
    std::uint64_t concealed = 0;  ///< Packets that something else was played for.
    std::uint64_t skipped = 0;    ///< Packets left out to catch up.
    std::uint64_t stretched = 0;  ///< Packets played longer, to buffer more.
    std::uint64_t deviceUnderruns = 0;  ///< Those among the underruns that the device had.
    std::uint64_t underruns = 0;        ///< Times that the sound ran dry.
};

/// The figures of a session at one moment. Counts run from the start of the program.
struct Statistics {
    double time = 0;       ///< Seconds since the program began to listen.
    std::string server;    ///< Address and port.
    std::string hostName;  ///< As the user named the server.
    bool connected = false;
    int sampleRate = 0;  ///< Hz, 0 before the first audio.
    std::uint32_t rateCode = 0;
    bool reliable = true;          ///< As the latest packet says.
    double kilobitsPerSecond = 0;  ///< Of received audio packets, over the last second.
    std::uint32_t roundTripMs = 0;
    std::uint64_t packets = 0;       ///< Audio packets received.
    std::uint64_t bytes = 0;         ///< Their bytes, headers of the audio packets included.
    std::uint64_t lost = 0;          ///< Sequence numbers that never came.
    std::uint64_t damaged = 0;       ///< Packets that are no audio or cannot be decoded.
    std::uint64_t frames = 0;        ///< Stereo frames decoded.
    std::uint64_t filledFrames = 0;  ///< Frames of silence in place of missing sound.
    std::uint64_t reconnects = 0;
    std::array<double, LevelMeter::CHANNELS> peakDbfs{SILENCE_DBFS, SILENCE_DBFS};
    std::array<double, LevelMeter::CHANNELS> rmsDbfs{SILENCE_DBFS, SILENCE_DBFS};
    std::optional<Playback> playback;  ///< Empty when nothing is played.
};

/// Name of a rate code: "raw", "opus-64" and so on, "code-4" for one without an encoder.
std::string rateName(std::uint32_t rateCode);

/// "reliable" or "best-effort".
const char* deliveryName(bool reliable);

/// One JSON object on one line, without a line end. `type` is "stats" or "end".
std::string toJson(const Statistics& statistics, const char* type);

/// One line for a log, without a line end.
std::string toLine(const Statistics& statistics);

/// The report at the end: one "key: value" a line, each line with its end.
std::string toReport(const Statistics& statistics);

}  // namespace vxlisten
