#pragma once

#include "app/base/start_values.h"  // IWYU pragma: export

/// What the argument scan found, apart from the process-wide values of start_values.h.
struct ArgumentScan {
    bool nogui = false;         ///< "-nogui": run without a window.
    bool platformSeen = false;  ///< "-platform" was met; the toolkit reads its value itself.
    bool waylandArg = false;    ///< An argument after "-platform" named a Wayland platform.
};

/// Reads all arguments after the program name. Starts from unset values, ignores unknown words
/// and reports nothing. Thread: main, before any thread but the console's exists.
ArgumentScan scanArguments(int argc, const char* const* argv);

/// Fills the port and the bind address from VELANTRIX_SERVER_PORT and VELANTRIX_SERVER_BINDADDR
/// where the command line left them unset, and prints which one it took.
/// Thread: main, before any thread but the console's exists.
void readStartEnvironment();

/// Warns about Wayland sessions and steers the toolkit to X11 where the session is one and
/// nobody chose a platform. Without a window it chooses the toolkit's "offscreen" platform where
/// X11 would be taken and there is no X11 display, so that the toolkit does not end the process.
/// May set QT_QPA_PLATFORM. Thread: main, before the application object is built.
void choosePlatform(const ArgumentScan& scan);
