#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "listen/audio/level_meter.h"
#include "listen/console/statistics.h"
#include "listen/options.h"

namespace vxlisten {

/// Prints figures while the program runs (as a live display, as lines or as JSON), messages, and
/// the report at the end. Figures go to standard output, or to standard error when standard output
/// carries the sound.
class Reporter {
  public:
    /// `options` is borrowed and must outlive this.
    explicit Reporter(const Options& options);
    ~Reporter();
    Reporter(const Reporter&) = delete;
    Reporter& operator=(const Reporter&) = delete;

    /// The interval in which to call show(), in microseconds.
    [[nodiscard]] std::int64_t interval() const;

    /// Prints the figures, or drops them when they cannot be written.
    void show(const Statistics& statistics);

    /// Prints a message above the display; nothing when quiet.
    void announce(const std::string& sentence);

    /// Prints an error above the display.
    void complain(const std::string& sentence);

    /// Prints the report at the end; the display stays as it is.
    void report(const Statistics& statistics);

  private:
    void draw(const Statistics& statistics);
    bool write(const std::string& text, int timeout = 0) const;
    void showCursor();

    const Options& options_;
    int descriptor_;
    bool display_;           ///< Draw in place, on a terminal.
    std::size_t lines_ = 0;  ///< Lines of the display on the terminal.
    std::array<PeakHold, LevelMeter::CHANNELS> holds_;
};

}  // namespace vxlisten
