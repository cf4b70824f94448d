#pragma once

#include <string>

#include "listen/options.h"

namespace vxlisten {

/// Prints every server that answers within three seconds, one a line: address, answer time in
/// milliseconds, both separated by a tab. Returns the exit status of the program.
int listServers(const Options& options);

/// Looks for a server and enters the address of the first that answers as the host of `options`,
/// and those of the others; lists all that answered when there are several. False when there is
/// none, having told so.
bool findServer(Options& options);

/// Where the server of a lost session is now; empty when it is not known better than before.
/// `address` is where it was. A name is looked up anew. A server that was found by searching is
/// searched for again: at the same address if it answers there, else the first server that did not
/// stand beside it from the start. May wait for a second, or as long as the name service does.
std::string locateAgain(const Options& options, const std::string& address);

}  // namespace vxlisten
