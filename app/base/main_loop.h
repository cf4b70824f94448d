#pragma once

/// Ways into the main thread's event loop from signal handlers and other threads.
///
/// One pipe carries all requests; a notifier on the main thread reads them, also inside the
/// nested loop of an open dialog.

/// Installs the pipe's notifier, and the handlers of SIGINT and SIGTERM: the first signal ends
/// the event loop (status 0), a further one has the default action again.
/// Thread: main, after the application object was built and before the core's init().
void installMainLoopRequests();

/// Ends the notifier's life. Thread: main, before the application object is destroyed.
void removeMainLoopRequests();

/// Asks the main thread to call exit(status). Returns false when no notifier was ever installed,
/// so that nobody could answer. Does not wait. Thread: any but main.
bool requestMainThreadExit(int status);

/// Sets what the main thread does first when it exits before the event loop has ended by itself,
/// such as keeping other threads from what the exit is going to destroy. Thread: main.
void setExitPreparation(void (*preparation)());

/// Does what setExitPreparation set, the first time it is called. Thread: main.
void prepareExit();

/// True once the main thread has begun the exit asked for.
bool mainThreadExitBegun();

/// The status to end with after the event loop has ended by itself with `loopResult`: that of an
/// exit asked for meanwhile, which nobody will answer any more, comes first. Thread: main.
int finalStatus(int loopResult);
