#pragma once

/// Ends the process at once with `status` when it still runs after `seconds`: a library's exit
/// handler may hang. A further call replaces the one before. Uses SIGALRM, no memory and no lock.
/// Thread: any.
void limitExit(int status, unsigned seconds = 30);

/// Ends the process with `status` (-1 gives 255), running exit handlers and static destructors.
///
/// Without "-verbose" standard error goes to "/dev/null" first, to hide what libraries print while
/// they are torn down. The exit itself runs on the main thread, which may be inside the toolkit:
/// another caller asks for it through the main loop's pipe and waits. When the main thread has not
/// answered within 3 s, or the exit takes more than 30 s, the process ends at once.
/// Thread: any but capture.
[[noreturn]] void ExitProcess(int status);
