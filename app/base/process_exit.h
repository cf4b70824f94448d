#pragma once

/// Ends the process at once with `status` if it still runs after `seconds`: a library's exit
/// handler may hang. A later call replaces an earlier one. Uses SIGALRM, no memory and no lock.
/// Thread: any.
void limitExit(int status, unsigned seconds = 30);

/// Ends the process with `status` (-1 gives 255), running exit handlers and static destructors.
///
/// Without "-verbose" standard error goes to "/dev/null" first, to hide what libraries print
/// meanwhile. The exit runs on the main thread; other threads request it through the main loop's
/// pipe and wait. When the main thread has not answered within 3 s, or the exit takes more than 30
/// s, the process ends at once. Thread: any but capture.
[[noreturn]] void ExitProcess(int status);
