#pragma once

#include "listen/options.h"

namespace vxlisten {

/// Prints every server that answers within three seconds, one a line: address, answer time in
/// milliseconds, both separated by a tab. Returns the exit status of the program.
int listServers(const Options& options);

/// Looks for a server and enters the address of the first that answers as the host of `options`;
/// lists all that answered when there are several. False when there is none, having told so.
bool findServer(Options& options);

}  // namespace vxlisten
