#pragma once

#include <cstdio>

namespace vxlisten {

/// While one exists, the C library's `stderr` is discarded: sound libraries write pages of lines
/// there that say nothing to the user. The descriptor stays as it is, so that the program's own
/// sentences and a sanitizer's reports, which go straight to it, are seen. One at a time.
class StderrMute {
  public:
    StderrMute();
    ~StderrMute();

    /// Leaves everything as it is for good, for a library that may still write.
    void abandon() { devNull_ = nullptr; }

    StderrMute(const StderrMute&) = delete;
    StderrMute& operator=(const StderrMute&) = delete;

  private:
    std::FILE* devNull_;  ///< Null when it could not be had.
    std::FILE* saved_;    ///< What `stderr` was.
};

}  // namespace vxlisten
