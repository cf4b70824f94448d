#pragma once

/// Requests to the main thread's event loop from signal handlers and other threads.
///
/// One pipe carries all requests; a notifier on the main thread reads them, also inside the
/// nested loop of an open dialog.

/// Installs the pipe's notifier, and the handlers of SIGINT and SIGTERM: the first signal ends the
/// event loop (status 0), a second one has the default action. Thread: main, after the application
/// object was built and before the core's init().
void installMainLoopRequests();

/// Destroys the notifier. Thread: main, before the application object is destroyed.
void removeMainLoopRequests();

/// Asks the main thread to call exit(status). Returns false when no notifier was ever installed.
/// Does not wait. Thread: any but main.
bool requestMainThreadExit(int status);

/// Sets what the main thread does first when it exits inside the event loop, such as keeping other
/// threads from objects that the exit destroys. Thread: main.
void setExitPreparation(void (*preparation)());

/// Calls the function of setExitPreparation, once. Thread: main.
void prepareExit();

/// True once the main thread has begun the requested exit.
bool mainThreadExitBegun();

/// The status to end with after the event loop has returned `loopResult`. An exit requested
/// meanwhile has precedence. Thread: main.
int finalStatus(int loopResult);
