#include "listen/reporter.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "listen/clock.h"
#include "listen/display.h"

namespace vxlisten {

namespace {

constexpr std::int64_t DISPLAY_INTERVAL = 100 * MILLISECOND;
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

void writeAll(int descriptor, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(descriptor, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) {
            return;  // Nobody reads; the figures are not worth ending for.
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

}  // namespace

Reporter::Reporter(const Options& options)
    : options_(options),
      descriptor_(options.toStdout ? STDERR_FILENO : STDOUT_FILENO),
      display_(!options.quiet && options.stats == StatsStyle::Display && canRedraw(descriptor_)) {
    if (display_) {
        write(HIDE_CURSOR);
    }
}

Reporter::~Reporter() {
    if (display_) {
        write(SHOW_CURSOR);
    }
}

std::int64_t Reporter::interval() const {
    return display_ ? DISPLAY_INTERVAL : SECOND;
}

void Reporter::write(const std::string& text) const {
    writeAll(descriptor_, text);
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
    write(redraw(lines, lines_));
    lines_ = lines.size();
}

void Reporter::eraseDisplay() {
    if (lines_ > 0) {
        write(redraw({}, lines_));
        lines_ = 0;
    }
}

void Reporter::sentence(const std::string& text) {
    eraseDisplay();
    writeAll(STDERR_FILENO, "velantrix-listen: " + text + "\n");
}

void Reporter::announce(const std::string& text) {
    if (!options_.quiet) {
        sentence(text);
    }
}

void Reporter::complain(const std::string& text) {
    sentence(text);
}

void Reporter::report(const Statistics& statistics) {
    lines_ = 0;
    if (options_.stats == StatsStyle::Json) {
        write(toJson(statistics, "end") + "\n");
    } else if (!options_.quiet) {
        write(toReport(statistics));
    }
}

}  // namespace vxlisten
