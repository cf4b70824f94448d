#pragma once

/// The program's lines on standard output.
///
/// Every line leaves in one write, never through a stdio buffer, so it shows at once in a pipe or
/// a journal and lines of different threads do not mix. A reader that stops reading never holds
/// the program up: an ordinary thread waits at most about a second before it drops a line, and
/// the capture callback never waits, because its lines go through a bounded queue that a thread
/// of this module writes out in order.

/// Prepares the standard descriptors (a missing one is opened on "/dev/null", so that no socket
/// can take its number), makes SIGPIPE harmless, and starts the writing thread.
/// Until it is called, and without a thread to be had, every line is written by the thread that
/// prints it. Thread: main, first thing in the program.
void consoleStart();

/// Prints formatted text, as printf does; the format brings its own line end.
/// Thread: any. Realtime-safe: only within a ConsoleDeferral (text beyond 255 bytes is then cut).
[[gnu::format(printf, 1, 2)]] void consolePrintf(const char* format, ...);

/// Prints a text and a line end, as puts does. Thread and safety as consolePrintf.
void consolePuts(const char* text);

/// Waits until the queued lines have been written, at most `milliseconds`. Thread: any but capture.
void consoleDrain(int milliseconds);

/// While one exists on a thread, that thread's lines are queued instead of written.
/// One thread at a time may hold one (the capture thread). Realtime-safe: yes.
class ConsoleDeferral {
  public:
    ConsoleDeferral();
    ~ConsoleDeferral();
    ConsoleDeferral(const ConsoleDeferral&) = delete;
    ConsoleDeferral& operator=(const ConsoleDeferral&) = delete;
};
