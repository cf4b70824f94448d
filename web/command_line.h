#pragma once

#include <optional>

#include "web/options.h"

namespace vxweb {

/// Exit statuses of the program.
constexpr int STATUS_OK = 0;
constexpr int STATUS_FAILURE = 1;  ///< Something cannot be used or has failed.
constexpr int STATUS_USAGE = 2;    ///< The command line makes no sense.

/// What the command line asks for: options to run with, or the status to end with at once (help
/// and version, or a sentence about an error, have then been printed).
struct CommandLine {
    Options options;
    std::optional<int> status;
};

/// Reads the command line. Passwords in it are overwritten, so that the process list does not show
/// them.
CommandLine readCommandLine(int argc, char** argv);

}  // namespace vxweb
