#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "listen/audio/level_meter.h"
#include "listen/device/playback.h"

namespace vxlisten {

/// The figures of a session at one moment. Counts run from the start of the program.
struct Statistics {
    double time = 0;       ///< Seconds since the program began to listen.
    std::string server;    ///< Address and port.
    std::string hostName;  ///< The server as the user gave it.
    bool connected = false;
    int sampleRate = 0;  ///< Hz, 0 before the first audio.
    std::uint32_t rateCode = 0;
    bool reliable = true;          ///< As the latest packet says.
    double kilobitsPerSecond = 0;  ///< Of received audio packets, over the last second.
    std::uint32_t roundTripMs = 0;
    std::uint64_t packets = 0;       ///< Audio packets received.
    std::uint64_t bytes = 0;         ///< Their bytes, headers of the audio packets included.
    std::uint64_t lost = 0;          ///< Sequence numbers that never came.
    std::uint64_t damaged = 0;       ///< Packets that are not audio or cannot be decoded.
    std::uint64_t frames = 0;        ///< Stereo frames decoded.
    std::uint64_t filledFrames = 0;  ///< Frames of silence in place of missing sound.
    std::uint64_t reconnects = 0;
    std::array<double, LevelMeter::CHANNELS> peakDbfs{SILENCE_DBFS, SILENCE_DBFS};
    std::array<double, LevelMeter::CHANNELS> rmsDbfs{SILENCE_DBFS, SILENCE_DBFS};
    std::optional<Playback> playback;  ///< Empty when nothing is played.
};

/// Text of a number with `decimals` digits after the point, in any locale.
std::string number(double value, int decimals);

/// Name of a rate code: "raw", "opus-64" and so on, "code-4" for one without an encoder.
std::string rateName(std::uint32_t rateCode);

/// "reliable" or "best-effort".
const char* deliveryName(bool reliable);

/// The delay and, with --delay, how late the sound is, with a blank before each; empty while they
/// are not known.
std::string delayText(const Playback& playback);

/// One JSON object on one line, without a line end. `type` is "stats" or "end".
std::string toJson(const Statistics& statistics, const char* type);

/// One line for a log, without a line end.
std::string toLine(const Statistics& statistics);

/// The report at the end: one "key: value" a line, each line with its end.
std::string toReport(const Statistics& statistics);

}  // namespace vxlisten
