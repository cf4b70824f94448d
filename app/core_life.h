#pragma once

/// The steps of the core object's destruction while other threads may use it; see
/// app/base/core_pin.h.

/// Called by the core's constructor. Thread: main.
void markCoreAlive();

/// First step of the destructors: ends `Alive`, directs the streaming side's reports to a plain
/// core and waits at most 500 ms for the pins. Meanwhile calls `serveReports` (may be null), which
/// releases threads that wait for the main thread. Repeated calls do nothing. Thread: main.
void closeCore(void (*serveReports)(void* context), void* context);

/// Last step before the core's members are destroyed. Thread: main.
void markCoreDestroyed();
