#pragma once

#include <optional>

#include "web/options.h"

namespace vxweb {

/// Exit statuses of the program.
constexpr int STATUS_OK = 0;
constexpr int STATUS_FAILURE = 1;  ///< An error at run time.
constexpr int STATUS_USAGE = 2;    ///< Wrong command line.

/// The options, or the status to end with at once, after printing help, version or a message.
struct CommandLine {
    Options options;
    std::optional<int> status;
};

/// Reads the command line. Passwords in it are overwritten, so that the process list does not show
/// them.
CommandLine readCommandLine(int argc, char** argv);

}  // namespace vxweb
