#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "listen/audio/level_meter.h"
#include "listen/console/statistics.h"

namespace vxlisten {

/// A level meter of exactly `width` characters (at least 3), -60 dBFS at its left end and 0 dBFS at
/// its right one: `#` up to `level`, `|` at `held`, `-` elsewhere.
std::string meterBar(double level, double held, std::size_t width);

/// The lines of the live display for a terminal of `columns` columns; none is longer than
/// `columns` - 1. `held` are the peak-hold levels in dBFS. Control characters in names are replaced
/// by "?".
std::vector<std::string> layOutDisplay(const Statistics& statistics,
                                       const std::array<double, LevelMeter::CHANNELS>& held,
                                       std::size_t columns);

/// The text that replaces the `before` lines written last by `lines` on a terminal; to be written
/// at once.
std::string redraw(const std::vector<std::string>& lines, std::size_t before);

}  // namespace vxlisten
