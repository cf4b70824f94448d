#pragma once

namespace vxlisten {

/// While one exists, standard error goes nowhere: sound libraries write pages of lines there that
/// say nothing to the user. Not for two threads at once.
class StderrMute {
  public:
    StderrMute();
    ~StderrMute();
    StderrMute(const StderrMute&) = delete;
    StderrMute& operator=(const StderrMute&) = delete;

  private:
    int saved_;  ///< The real standard error, -1 when it could not be put aside.
};

}  // namespace vxlisten
