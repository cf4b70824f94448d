#pragma once

#include "web/options.h"

namespace vxweb {

/// Serves until SIGINT or SIGTERM comes. Returns the exit status of the program, having told why
/// when it is not 0. Thread: main.
int run(const Options& options);

}  // namespace vxweb
