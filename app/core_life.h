#pragma once

/// The steps by which the core object goes while other threads may be using it; see
/// app/base/core_pin.h.

/// Called by the core's constructor. Thread: main.
void markCoreAlive();

/// First step of the destructors: ends `Alive`, points the streaming side's reports at a plain
/// core and waits at most 500 ms for the pins, calling `serveReports` (may be null) in between to
/// release threads that wait for the main thread. Repeated calls do nothing. Thread: main.
void closeCore(void (*serveReports)(void* context), void* context);

/// Last step before the core's members go. Thread: main.
void markCoreDestroyed();
