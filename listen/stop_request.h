#pragma once

namespace vxlisten {

/// Makes SIGINT, SIGTERM and SIGHUP ask the program to end; a second signal ends it at once.
/// SIGPIPE is ignored. Thread: main, before any other thread exists.
void installStopRequest();

/// True once the program was asked to end. Thread: any.
bool stopRequested();

}  // namespace vxlisten
