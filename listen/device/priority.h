#pragma once

namespace vxlisten {

/// Raises the priority of all present threads: the network's, the output's and those of the sound
/// libraries. Real-time scheduling where the user may have it, else a better nice value where that
/// is allowed. Child processes do not inherit it. Thread: any.
void raisePriority();

/// True when the user may have real-time scheduling. Thread: any.
bool realTimeAllowed();

}  // namespace vxlisten
