#include "listen/console/reporter.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "listen/clock.h"
#include "listen/console/display.h"
#include "listen/stop_request.h"

namespace vxlisten {

namespace {

constexpr std::int64_t DISPLAY_INTERVAL = 100 * MILLISECOND;
constexpr int MESSAGE_TIMEOUT_MS = 100;
constexpr int REPORT_TIMEOUT_MS = 1000;
constexpr std::size_t USUAL_COLUMNS = 80;
constexpr const char* HIDE_CURSOR = "\x1b[?25l";
constexpr const char* SHOW_CURSOR = "\x1b[?25h";

bool canRedraw(int descriptor) {
    const char* const kind = std::getenv("TERM");
    return isatty(descriptor) == 1 && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

std::size_t columnsOf(int descriptor) {
    winsize size = {};
    const bool known = ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : USUAL_COLUMNS;
}

/// A stopped terminal or a full pipe must not delay the sound: text that cannot be written within
/// `timeout` milliseconds is dropped. Returns whether it was written.
bool writeAll(int descriptor, const std::string& text, int timeout) {
    pollfd waiting = {descriptor, POLLOUT, 0};
    if (poll(&waiting, 1, timeout) == 0) {
        return false;
    }
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(descriptor, text.data() + done, text.size() - done);
        if (written < 0 && (errno != EINTR || stopRequested())) {
            return false;  // Nobody reads: no reason to end.
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    return true;
}

}  // namespace

Reporter::Reporter(const Options& options)
    : options_(options),
      descriptor_(options.toStdout ? STDERR_FILENO : STDOUT_FILENO),
      display_(!options.quiet && options.stats == StatsStyle::Display && canRedraw(descriptor_)) {
    if (display_) {
        write(HIDE_CURSOR, REPORT_TIMEOUT_MS);
    }
}

Reporter::~Reporter() {
    showCursor();
}

void Reporter::showCursor() {
    if (display_) {
        write(SHOW_CURSOR, REPORT_TIMEOUT_MS);
        display_ = false;
    }
}

std::int64_t Reporter::interval() const {
    return display_ ? DISPLAY_INTERVAL : SECOND;
}

bool Reporter::write(const std::string& text, int timeout) const {
    return writeAll(descriptor_, text, timeout);
}

void Reporter::show(const Statistics& statistics) {
    if (options_.stats == StatsStyle::Json) {
        write(toJson(statistics, "stats") + "\n");
    } else if (display_) {
        draw(statistics);
    } else if (!options_.quiet) {
        write(toLine(statistics) + "\n");
    }
}

void Reporter::draw(const Statistics& statistics) {
    const std::int64_t now = steadyNow();
    std::array<double, LevelMeter::CHANNELS> held{};
    for (std::size_t i = 0; i < held.size(); ++i) {
        held[i] = holds_[i].update(statistics.peakDbfs[i], now);
    }
    const std::vector<std::string> lines = layOutDisplay(statistics, held, columnsOf(descriptor_));
    if (write(redraw(lines, lines_))) {
        lines_ = lines.size();
    }
}

void Reporter::announce(const std::string& sentence) {
    if (!options_.quiet) {
        complain(sentence);
    }
}

void Reporter::complain(const std::string& sentence) {
    if (lines_ > 0) {
        write(redraw({}, lines_));
        lines_ = 0;
    }
    writeAll(STDERR_FILENO, "velantrix-listen: " + sentence + "\n", MESSAGE_TIMEOUT_MS);
}

void Reporter::report(const Statistics& statistics) {
    showCursor();
    lines_ = 0;
    if (options_.stats == StatsStyle::Json) {
        write(toJson(statistics, "end") + "\n", REPORT_TIMEOUT_MS);
    } else if (!options_.quiet) {
        write(toReport(statistics), REPORT_TIMEOUT_MS);
    }
}

}  // namespace vxlisten
