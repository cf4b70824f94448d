#include "listen/console/statistics.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "stream/wire_format.h"

namespace vxlisten {

namespace {

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (std::iscntrl(static_cast<unsigned char>(c)) != 0) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            result += escape;
        } else {
            result += c == '"' || c == '\\' ? "\\" : "";
            result += c;
        }
    }
    return result + '"';
}

/// Builds a JSON object field by field.
class JsonObject {
  public:
    JsonObject& add(const char* key, const std::string& value) {
        text_ += (text_.size() > 1 ? ",\"" : "\"") + std::string(key) + "\":" + value;
        return *this;
    }
    JsonObject& add(const char* key, const std::array<double, LevelMeter::CHANNELS>& pair) {
        return add(key, "[" + number(pair[0], 2) + "," + number(pair[1], 2) + "]");
    }
    [[nodiscard]] std::string end() const { return text_ + "}"; }

  private:
    std::string text_ = "{";
};

std::string orNull(const std::optional<double>& value) {
    return value ? number(*value, 2) : "null";
}

std::string playbackJson(const Playback& p) {
    JsonObject object;
    object.add("playing", p.playing ? "true" : "false")
        .add("buffer_ms", number(p.bufferMs, 1))
        .add("target_ms", number(p.targetMs, 1))
        .add("jitter_ms", number(p.jitterMs, 1))
        .add("output_latency_ms", number(p.outputLatencyMs, 1))
        .add("correction_ppm", number(p.correctionPpm, 1))
        .add("delay_ms", orNull(p.delayMs))
        .add("in_step_ms", orNull(p.inStepMs))
        .add("concealed", std::to_string(p.concealed))
        .add("skipped", std::to_string(p.skipped))
        .add("stretched", std::to_string(p.stretched))
        .add("underruns", std::to_string(p.underruns))
        .add("device_underruns", std::to_string(p.deviceUnderruns));
    return object.end();
}

double louder(const std::array<double, LevelMeter::CHANNELS>& pair) {
    return std::max(pair[0], pair[1]);
}

/// Mean level of both channels together.
double together(const std::array<double, LevelMeter::CHANNELS>& pair) {
    const double power = (std::pow(10.0, pair[0] / 10.0) + std::pow(10.0, pair[1] / 10.0)) / 2.0;
    return std::max(SILENCE_DBFS, 10.0 * std::log10(power));
}

}  // namespace

std::string number(double value, int decimals) {
    const double scale = std::pow(10.0, decimals);
    const double rounded = std::nearbyint(value * scale) / scale + 0.0;  // Never -0.
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, rounded);
    return text;
}

std::string rateName(std::uint32_t rateCode) {
    if (rateCode == wire::RATE_CODE_RAW) {
        return "raw";
    }
    const std::int32_t bitRate = wire::bitRateOf(rateCode);
    return bitRate > 0 ? "opus-" + std::to_string(bitRate / 1000)
                       : "code-" + std::to_string(rateCode);
}

const char* deliveryName(bool reliable) {
    return reliable ? "reliable" : "best-effort";
}

std::string delayText(const Playback& playback) {
    if (!playback.delayMs) {
        return {};
    }
    const std::string text = " delay " + number(*playback.delayMs, 1) + " ms";
    return playback.inStepMs ? text + " in step " + number(*playback.inStepMs, 1) + " ms" : text;
}

std::string toJson(const Statistics& s, const char* type) {
    JsonObject object;
    object.add("type", quoted(type))
        .add("time", number(s.time, 3))
        .add("server", quoted(s.server))
        .add("host", quoted(s.hostName))
        .add("connected", s.connected ? "true" : "false")
        .add("sample_rate", std::to_string(s.sampleRate))
        .add("rate", quoted(rateName(s.rateCode)))
        .add("delivery", quoted(deliveryName(s.reliable)))
        .add("kbit_per_s", number(s.kilobitsPerSecond, 1))
        .add("round_trip_ms", std::to_string(s.roundTripMs))
        .add("packets", std::to_string(s.packets))
        .add("bytes", std::to_string(s.bytes))
        .add("lost", std::to_string(s.lost))
        .add("damaged", std::to_string(s.damaged))
        .add("frames", std::to_string(s.frames))
        .add("filled_frames", std::to_string(s.filledFrames))
        .add("reconnects", std::to_string(s.reconnects))
        .add("peak_dbfs", s.peakDbfs)
        .add("rms_dbfs", s.rmsDbfs)
        .add("playback", s.playback ? playbackJson(*s.playback) : "null");
    return object.end();
}

std::string toLine(const Statistics& s) {
    std::string text = s.connected ? "connected" : "waiting";
    text += " " + s.server + " " + std::to_string(s.sampleRate) + " Hz " + rateName(s.rateCode) +
            " " + deliveryName(s.reliable) + " " + number(s.kilobitsPerSecond, 0) +
            " kbit/s peak " + number(louder(s.peakDbfs), 1) + " dBFS lost " +
            std::to_string(s.lost);
    if (s.playback) {
        text += " concealed " + std::to_string(s.playback->concealed) + " underruns " +
                std::to_string(s.playback->underruns) + " buffer " +
                number(s.playback->bufferMs, 0) + " ms" + delayText(*s.playback);
    }
    return text;
}

std::string toReport(const Statistics& s) {
    std::string text;
    const auto line = [&text](const char* key, const std::string& value) {
        text += std::string(key) + ": " + value + "\n";
    };
    line("server", s.server);
    line("seconds", number(s.time, 3));
    line("packets", std::to_string(s.packets));
    line("bytes", std::to_string(s.bytes));
    line("lost", std::to_string(s.lost));
    line("damaged", std::to_string(s.damaged));
    line("rate", std::to_string(s.sampleRate));
    line("format", rateName(s.rateCode));
    line("delivery", deliveryName(s.reliable));
    line("frames", std::to_string(s.frames));
    line("filled-frames", std::to_string(s.filledFrames));
    line("reconnects", std::to_string(s.reconnects));
    line("peak-dbfs", number(louder(s.peakDbfs), 2));
    line("rms-dbfs", number(together(s.rmsDbfs), 2));
    if (s.playback) {
        line("concealed", std::to_string(s.playback->concealed));
        line("skipped", std::to_string(s.playback->skipped));
        line("stretched", std::to_string(s.playback->stretched));
        line("underruns", std::to_string(s.playback->underruns));
    }
    return text;
}

}  // namespace vxlisten
