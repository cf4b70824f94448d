#pragma once

#include <cstdio>

namespace vxlisten {

/// While one exists, the C library's `stderr` is discarded: sound libraries write many lines there.
/// The descriptor stays open, so that the program's own messages and sanitizer reports, which use
/// it directly, appear. One at a time.
class StderrMute {
  public:
    StderrMute();
    ~StderrMute();

    /// Never restores `stderr`, for a library that may still write.
    void abandon() { devNull_ = nullptr; }

    StderrMute(const StderrMute&) = delete;
    StderrMute& operator=(const StderrMute&) = delete;

  private:
    std::FILE* devNull_;  ///< Null when it could not be opened.
    std::FILE* saved_;    ///< What `stderr` was.
};

}  // namespace vxlisten
