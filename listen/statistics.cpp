#include "listen/statistics.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>

#include "stream/wire_format.h"

namespace vxlisten {

namespace {

/// Text of a number with `decimals` digits after the point, whatever the locale.
std::string number(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string number(std::uint64_t value) {
    return std::to_string(value);
}

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7F) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            result += escape;
        } else {
            result += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
        }
    }
    return result + '"';
}

const char* deliveryName(bool reliable) {
    return reliable ? "reliable" : "best-effort";
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

double louder(const std::array<double, LevelMeter::CHANNELS>& pair) {
    return std::max(pair[0], pair[1]);
}

/// Mean level of both channels together.
double together(const std::array<double, LevelMeter::CHANNELS>& pair) {
    const double power = (std::pow(10.0, pair[0] / 10.0) + std::pow(10.0, pair[1] / 10.0)) / 2.0;
    return std::max(SILENCE_DBFS, 10.0 * std::log10(power));
}

}  // namespace

std::string rateName(std::uint32_t rateCode) {
    if (rateCode == wire::RATE_CODE_RAW) {
        return "raw";
    }
    const std::int32_t bitRate = wire::bitRateOf(rateCode);
    return bitRate > 0 ? "opus-" + std::to_string(bitRate / 1000)
                       : "code-" + std::to_string(rateCode);
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
        .add("round_trip_ms", number(s.roundTripMs))
        .add("packets", number(s.packets))
        .add("bytes", number(s.bytes))
        .add("lost", number(s.lost))
        .add("late", number(s.late))
        .add("duplicates", number(s.duplicates))
        .add("damaged", number(s.damaged))
        .add("frames", number(s.frames))
        .add("filled_frames", number(s.filledFrames))
        .add("reconnects", number(s.reconnects))
        .add("peak_dbfs", s.peakDbfs)
        .add("rms_dbfs", s.rmsDbfs);
    return object.end();
}

std::string toLine(const Statistics& s) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "%s %s %d Hz %s %.0f kbit/s peak %.1f dBFS lost %" PRIu64 " late %" PRIu64,
                  s.connected ? "playing" : "waiting", s.server.c_str(), s.sampleRate,
                  rateName(s.rateCode).c_str(), s.kilobitsPerSecond, louder(s.peakDbfs), s.lost,
                  s.late);
    return text;
}

std::string toReport(const Statistics& s) {
    std::string text;
    const auto line = [&text](const char* key, const std::string& value) {
        text += std::string(key) + ": " + value + "\n";
    };
    line("server", s.server);
    line("seconds", number(s.time, 3));
    line("packets", number(s.packets));
    line("bytes", number(s.bytes));
    line("lost", number(s.lost));
    line("late", number(s.late));
    line("duplicates", number(s.duplicates));
    line("damaged", number(s.damaged));
    line("rate", std::to_string(s.sampleRate));
    line("format", rateName(s.rateCode));
    line("delivery", deliveryName(s.reliable));
    line("frames", number(s.frames));
    line("filled-frames", number(s.filledFrames));
    line("reconnects", number(s.reconnects));
    line("peak-dbfs", number(louder(s.peakDbfs), 2));
    line("rms-dbfs", number(together(s.rmsDbfs), 2));
    return text;
}

}  // namespace vxlisten
