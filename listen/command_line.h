#pragma once

#include <optional>

#include "listen/options.h"

namespace vxlisten {

/// Exit statuses of the program.
constexpr int STATUS_OK = 0;
constexpr int STATUS_FAILURE = 1;  ///< Something failed while it ran.
constexpr int STATUS_USAGE = 2;    ///< The command line makes no sense.

/// What the command line asks for: options to run with, or the status to end with at once (help
/// and version, or a sentence about an error, have then been printed).
struct CommandLine {
    Options options;
    std::optional<int> status;
};

/// Reads the command line.
CommandLine readCommandLine(int argc, const char* const* argv);

}  // namespace vxlisten
