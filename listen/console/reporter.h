#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "listen/audio/level_meter.h"
#include "listen/console/statistics.h"
#include "listen/options.h"

namespace vxlisten {

/// Prints what the user is to see: figures while the program runs, as a live display, as lines or
/// as JSON, sentences about what happens, and the report at the end. Figures go to standard
/// output, to standard error while standard output carries the sound.
class Reporter {
  public:
    /// `options` is borrowed and must outlive this.
    explicit Reporter(const Options& options);
    ~Reporter();
    Reporter(const Reporter&) = delete;
    Reporter& operator=(const Reporter&) = delete;

    /// How often show() wants to be called, in microseconds.
    [[nodiscard]] std::int64_t interval() const;

    /// Prints the present figures, or leaves them out where nobody takes them.
    void show(const Statistics& statistics);

    /// Prints a sentence without disturbing the display; nothing when quiet.
    void announce(const std::string& sentence);

    /// Prints an error, without disturbing the display.
    void complain(const std::string& sentence);

    /// Prints the report at the end; the display stays as it is.
    void report(const Statistics& statistics);

  private:
    void draw(const Statistics& statistics);
    bool write(const std::string& text, int patience = 0) const;
    void showCursor();

    const Options& options_;
    int descriptor_;
    bool display_;           ///< Draw in place, on a terminal.
    std::size_t lines_ = 0;  ///< Lines of the display that stand on the terminal.
    std::array<PeakHold, LevelMeter::CHANNELS> holds_;
};

}  // namespace vxlisten
