#pragma once

namespace vxlisten {

/// Lets every thread that the program has now go before ordinary work: the network's, the one that
/// makes the sound, and those of the sound libraries between them and the device. Real-time
/// scheduling where the user may have it, a better nice value where that is allowed, else nothing.
/// Programs that the process starts later do not inherit it. Thread: any.
void raisePriority();

/// True when the user may have real-time scheduling. Thread: any.
bool realTimeAllowed();

}  // namespace vxlisten
