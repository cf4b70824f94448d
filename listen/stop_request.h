#pragma once

namespace vxlisten {

/// Makes SIGINT, SIGTERM and SIGHUP request the end of the program; a second signal ends it at
/// once. SIGPIPE is ignored. Thread: main, before any other thread exists.
void installStopRequest();

/// True once the end was requested. Thread: any.
bool stopRequested();

}  // namespace vxlisten
