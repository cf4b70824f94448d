#pragma once

#include "web/options.h"

namespace vxweb {

/// Serves until SIGINT or SIGTERM. Returns the exit status of the program; when it is not 0 a
/// message has been printed. Thread: main.
int run(const Options& options);

}  // namespace vxweb
