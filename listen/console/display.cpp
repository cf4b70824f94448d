#include "listen/console/display.h"

#include <algorithm>
#include <cassert>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <optional>

#include "listen/utf8.h"

namespace vxlisten {

namespace {

constexpr double METER_FLOOR = -60.0;
constexpr std::size_t MINIMUM_COLUMNS = 20;
constexpr std::size_t LEVEL_TEXT = 12;  ///< "  -12.3 dBFS".
constexpr std::size_t MAXIMUM_BAR = 60;

std::size_t barPosition(double level, std::size_t width) {
    const double share = std::clamp((level - METER_FLOOR) / -METER_FLOOR, 0.0, 1.0);
    return static_cast<std::size_t>(std::lround(share * static_cast<double>(width)));
}

std::string clockText(double seconds) {
    const auto whole = static_cast<unsigned long>(seconds);
    char text[64];
    std::snprintf(text, sizeof text, "%02lu:%02lu:%02lu", whole / 3600, whole / 60 % 60,
                  whole % 60);
    return text;
}

/// Packs fields into lines, two blanks between them; a field that is too long is cut.
std::vector<std::string> pack(const std::vector<std::string>& fields, std::size_t room) {
    std::vector<std::string> lines;
    for (const std::string& field : fields) {
        if (!lines.empty() && lines.back().size() + 2 + field.size() <= room) {
            lines.back() += "  " + field;
        } else {
            lines.push_back(cutText(field, room));
        }
    }
    return lines;
}

/// `text` with a every control character replaced by "?".
std::string plainText(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
    return text;
}

std::vector<std::string> headFields(const Statistics& s) {
    std::vector<std::string> fields = {plainText(s.hostName)};
    if (s.server.compare(0, s.hostName.size() + 1, s.hostName + ":") == 0) {
        fields = {s.server};
    } else {
        fields.push_back(s.server);
    }
    fields.push_back(clockText(s.time));
    fields.emplace_back(!s.connected          ? "connecting"
                        : s.sampleRate == 0   ? "waiting for audio"
                        : !s.playback         ? "receiving"
                        : !s.playback->device ? "no output device"
                        : s.playback->playing ? "playing"
                                              : "buffering");
    return fields;
}

std::vector<std::string> streamFields(const Statistics& s) {
    return {std::to_string(s.sampleRate) + " Hz", rateName(s.rateCode), deliveryName(s.reliable),
            number(s.kilobitsPerSecond, 0) + " kbit/s",
            "RTT " + std::to_string(s.roundTripMs) + " ms"};
}

std::vector<std::string> countFields(const Statistics& s) {
    std::vector<std::string> fields;
    if (s.playback) {
        fields.push_back("buffer " + number(s.playback->bufferMs, 0) + "/" +
                         number(s.playback->targetMs, 0) + " ms");
        if (s.playback->delayMs) {
            fields.push_back(delayText(*s.playback).substr(1));
        }
    }
    fields.push_back("lost " + std::to_string(s.lost));
    if (s.playback) {
        fields.push_back("concealed " + std::to_string(s.playback->concealed));
        fields.push_back("underruns " + std::to_string(s.playback->underruns));
    }
    return fields;
}

std::string meterLine(const char* name, double level, double held, std::size_t room) {
    const std::size_t width = std::min(MAXIMUM_BAR, room - 2 - LEVEL_TEXT);
    const std::string text = number(std::max(level, -99.9), 1) + " dBFS";
    return std::string(name) + " " + meterBar(level, held, width) +
           std::string(LEVEL_TEXT - text.size(), ' ') + text;
}

}  // namespace

std::string meterBar(double level, double held, std::size_t width) {
    assert(width >= 3);
    const std::size_t full = barPosition(level, width);
    std::string bar = std::string(full, '#') + std::string(width - full, '-');
    const std::size_t mark = barPosition(held, width);
    if (mark > 0) {
        bar[mark - 1] = '|';
    }
    return bar;
}

std::vector<std::string> layOutDisplay(const Statistics& statistics,
                                       const std::array<double, LevelMeter::CHANNELS>& held,
                                       std::size_t columns) {
    const std::size_t room = std::max(columns, MINIMUM_COLUMNS) - 1;
    std::vector<std::string> lines = pack(headFields(statistics), room);
    lines.push_back(meterLine("L", statistics.peakDbfs[0], held[0], room));
    lines.push_back(meterLine("R", statistics.peakDbfs[1], held[1], room));
    for (const auto& fields : {streamFields(statistics), countFields(statistics)}) {
        const std::vector<std::string> more = pack(fields, room);
        lines.insert(lines.end(), more.begin(), more.end());
    }
    return lines;
}

std::string redraw(const std::vector<std::string>& lines, std::size_t before) {
    std::string text;
    if (before > 0) {
        text = "\x1b[" + std::to_string(before) + "A";
    }
    text += "\r";
    for (const std::string& line : lines) {
        text += line + "\x1b[K\n";
    }
    return text + "\x1b[J";
}

}  // namespace vxlisten
