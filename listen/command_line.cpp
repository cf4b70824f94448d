#include "listen/command_line.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>

#include <CLI/CLI.hpp>

#include "listen/network/receiver.h"
#include "listen/playout/delay_target.h"
#include "listen/sinks/recorder.h"
#include "stream/wire_format.h"

namespace vxlisten {

namespace {

struct Rate {
    const char* name;
    std::uint32_t code;
};

constexpr double MAXIMUM_DELAY_MS = 10000;
constexpr double MAXIMUM_OFFSET_MS = 1000;

constexpr Rate RATES[] = {
    {"raw", wire::RATE_CODE_RAW}, {"64", 1}, {"128", 2}, {"256", 3}, {"20", 5}};

std::string ownName() {
    char name[wire::MAX_CLIENT_NAME + 1] = "";
    const bool known = gethostname(name, sizeof name - 1) == 0 && name[0] != '\0';
    return known ? name : "velantrix-listen";
}

/// The values before they are checked.
struct Words {
    std::string host;
    std::string rate = "raw";
    int port = 0;  ///< 0: not given.
    bool bestEffort = false;
    bool single = false;
    bool noPlay = false;
    std::string buffer;
    std::string delay;
    std::string offset;
    std::string stats;
};

void describe(CLI::App& app, Words& words, Options& options) {
    app.add_option("HOST", words.host, "Server, HOST or HOST:PORT; default: the first found");
    app.add_flag("--list", options.list, "List the servers that answer, and exit");
    app.add_option("--port", words.port, "UDP port of the server (59010)")
        ->check(CLI::Range(1, 65535));
    app.add_option("--rate", words.rate, "raw, or kbit/s of Opus: 20, 64, 128, 256 (raw)");
    app.add_flag("--best-effort", words.bestEffort, "Do not resend lost packets");
    app.add_option("--name", options.choice.name, "Name that the server shows (this host's)");
    app.add_flag("--single", words.single, "Leave when another client connects");
    app.add_option("--buffer", words.buffer, "Minimum buffer in milliseconds (40 at first)");
    app.add_option("--delay", words.delay,
                   "Fixed delay to the loudspeaker in milliseconds, for rooms in step");
    app.add_option("--offset", words.offset,
                   "Latency in milliseconds that the device does not report");
    app.add_option("--device", options.device, "Output device: its name, or part of it");
    app.add_flag("--list-devices", options.listDevices,
                 "List the output devices, the default one first, and exit");
    app.add_flag("--stdout", options.toStdout,
                 "Write raw 16-bit stereo to standard output; do not play");
    app.add_option("--record", options.recordPath, "Record to a .wav, .flac, .ogg or .opus file");
    app.add_flag("--no-play", words.noPlay, "Do not play the sound");
    app.add_option("--seconds", options.seconds, "Exit this many seconds after connecting");
    app.add_flag("--once", options.once, "Exit when the connection is lost; do not reconnect");
    app.add_flag("--stats", words.stats, "Print statistics once a second; --stats=json: as JSON");
    app.add_flag("--quiet", options.quiet, "Print only errors");
    app.set_version_flag("--version", "velantrix-listen " VELANTRIX_LISTEN_VERSION);
}

/// A message about an error, empty for none.
using Complaint = std::string;

Complaint takeHost(const Words& words, Options& options) {
    options.server.port =
        words.port != 0 ? static_cast<std::uint16_t>(words.port) : options.server.port;
    options.server.portChosen = words.port != 0;
    const std::size_t colon = words.host.rfind(':');
    if (colon != words.host.find(':')) {
        return "'" + words.host + "': only names and IPv4 addresses are supported";
    }
    options.server.host = words.host.substr(0, colon);
    if (colon == std::string::npos) {
        return {};
    }
    int port = 0;
    if (options.server.host.empty() ||
        !CLI::detail::lexical_cast(words.host.substr(colon + 1), port) || port < 1 ||
        port > 65535) {
        return "'" + words.host + "' is not HOST or HOST:PORT";
    }
    if (words.port != 0 && words.port != port) {
        return "HOST and --port name different ports";
    }
    options.server.port = static_cast<std::uint16_t>(port);
    options.server.portChosen = true;
    return {};
}

Complaint takeStats(const Words& words, Options& options) {
    if (words.stats == "json") {
        options.stats = StatsStyle::Json;
    } else if (words.stats == "true") {
        options.stats = StatsStyle::Lines;
    } else if (!words.stats.empty()) {
        return "--stats takes no value or =json";
    }
    return {};
}

Complaint takeStream(const Words& words, bool nameGiven, Options& options) {
    const auto* const rate =
        std::find_if(std::begin(RATES), std::end(RATES),
                     [&words](const Rate& known) { return known.name == words.rate; });
    if (rate == std::end(RATES)) {
        return "--rate must be raw, 20, 64, 128 or 256";
    }
    options.choice.rateCode = rate->code;
    options.choice.reliable = !words.bestEffort;
    options.choice.multiClient = !words.single;
    if (!nameGiven) {
        options.choice.name = ownName();
    }
    return {};
}

Complaint takeOutput(const Words& words, bool secondsGiven, Options& options) {
    options.play = !words.noPlay && !options.toStdout;
    if (!options.device.empty() && !options.play) {
        return "--device cannot be used with --no-play or --stdout";
    }
    if (secondsGiven && (!std::isfinite(options.seconds) || options.seconds <= 0)) {
        return "--seconds must be a number above 0";
    }
    if (!options.recordPath.empty() && !Recorder::knowsEnding(options.recordPath)) {
        return "--record needs a file name that ends in .wav, .flac, .ogg or .opus";
    }
    return {};
}

/// The number that is the whole of `text`, which may be any text.
std::optional<double> readNumber(const std::string& text) {
    const char* const begin = text.c_str();
    char* end = nullptr;
    const double value = std::strtod(begin, &end);
    const bool whole = end != begin && end == begin + text.size();
    // No leading blanks, nor "nan", "inf" and hexadecimals, which strtod accepts.
    const bool plain = text.find_first_not_of("+-.0123456789eE") == std::string::npos;
    return whole && plain && std::isfinite(value) ? std::optional(value) : std::nullopt;
}

Complaint takeDelay(const CLI::App& app, const Words& words, Options& options) {
    options.playout.bufferChosen = app.count("--buffer") > 0;
    if (options.playout.bufferChosen) {
        const double buffer = readNumber(words.buffer).value_or(0);
        if (buffer < DelayTarget::MINIMUM_MS || buffer > DelayTarget::MAXIMUM_MS) {
            return "--buffer must be a number of milliseconds from 10 to 500";
        }
        options.playout.bufferMs = buffer;
    }
    if (app.count("--offset") > 0 && app.count("--delay") == 0) {
        return "--offset needs --delay";
    }
    if (app.count("--delay") > 0) {
        if (words.noPlay || options.toStdout) {
            return "--delay cannot be used with --no-play or --stdout";
        }
        options.playout.delayMs = readNumber(words.delay);
        if (!options.playout.delayMs || *options.playout.delayMs <= 0 ||
            *options.playout.delayMs > MAXIMUM_DELAY_MS) {
            return "--delay must be a number of milliseconds above 0, up to 10000";
        }
    }
    if (app.count("--offset") > 0) {
        const std::optional<double> offset = readNumber(words.offset);
        if (!offset || std::abs(*offset) > MAXIMUM_OFFSET_MS) {
            return "--offset must be a number of milliseconds from -1000 to 1000";
        }
        options.playout.offsetMs = *offset;
    }
    return {};
}

Complaint check(const CLI::App& app, const Words& words, Options& options) {
    for (const Complaint& complaint :
         {takeHost(words, options), takeStats(words, options),
          takeStream(words, app.count("--name") > 0, options),
          takeOutput(words, app.count("--seconds") > 0, options), takeDelay(app, words, options)}) {
        if (!complaint.empty()) {
            return complaint;
        }
    }
    return {};
}

int complain(const Complaint& complaint) {
    std::fprintf(stderr, "velantrix-listen: %s\n", complaint.c_str());
    return STATUS_USAGE;
}

}  // namespace

CommandLine readCommandLine(int argc, const char* const* argv) {
    CommandLine result;
    Words words;
    CLI::App app("Plays, records or pipes the sound of a Velantrix Server", "velantrix-listen");
    describe(app, words, result.options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        result.status = app.exit(success);
        return result;
    } catch (const CLI::ParseError& error) {
        result.status = complain(error.what());
        return result;
    }
    const Complaint complaint = check(app, words, result.options);
    if (!complaint.empty()) {
        result.status = complain(complaint);
    }
    return result;
}

}  // namespace vxlisten
