#pragma once

#include <optional>

#include "listen/options.h"

namespace vxlisten {

/// Exit statuses of the program.
constexpr int STATUS_OK = 0;
constexpr int STATUS_FAILURE = 1;  ///< Something failed while it ran.
constexpr int STATUS_USAGE = 2;    ///< Wrong command line.

/// The options, or the status to end with at once, after printing help, version or a message.
struct CommandLine {
    Options options;
    std::optional<int> status;
};

/// Reads the command line.
CommandLine readCommandLine(int argc, const char* const* argv);

}  // namespace vxlisten
