#pragma once

#include "app/base/start_values.h"  // IWYU pragma: export

/// The result of the argument scan, apart from the process-wide values of start_values.h.
struct ArgumentScan {
    bool nogui = false;         ///< "-nogui": run without a window.
    bool platformSeen = false;  ///< "-platform" was given; the toolkit reads its value.
    bool waylandArg = false;    ///< An argument after "-platform" named a Wayland platform.
};

/// Reads all arguments after the program name. Starts from unset values, ignores unknown words
/// and reports nothing. Thread: main, before any thread but the console's exists.
ArgumentScan scanArguments(int argc, const char* const* argv);

/// Fills the port and the bind address from VELANTRIX_SERVER_PORT and VELANTRIX_SERVER_BINDADDR
/// where the command line left them unset, and prints a line for each. Thread: main, before any
/// thread but the console's exists.
void readStartEnvironment();

/// Warns about Wayland sessions, and makes the toolkit use X11 there unless a platform was chosen.
/// Without a window, where X11 would be used but has no display, it chooses the toolkit's
/// "offscreen" platform, because the toolkit would end the process. May set QT_QPA_PLATFORM.
/// Thread: main, before the application object is built.
void choosePlatform(const ArgumentScan& scan);
