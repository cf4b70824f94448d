#pragma once

#include <cstdint>

#include "listen/audio/level_meter.h"

namespace vxlisten {

/// The highest level of late, as a meter shows it: held for a while, then sinking.
class PeakHold {
  public:
    /// Takes a new peak in dBFS at `now` (microseconds) and returns the level to show.
    double update(double peakDbfs, std::int64_t now);

  private:
    double held_ = SILENCE_DBFS;
    std::int64_t heldSince_ = 0;
    std::int64_t last_ = 0;
};

}  // namespace vxlisten
