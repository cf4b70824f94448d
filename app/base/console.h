#pragma once

/// The program's lines on standard output and standard error.
///
/// One thread writes all of them, in the order in which they were printed, each in one write and
/// never through a stdio buffer: they show at once in a pipe or a journal and do not mix. Whoever
/// prints only puts a line into a bounded queue, so nobody but that thread waits for a reader. When
/// the queue is full the line is lost, and a line tells how many were.

/// Prepares the standard descriptors (a missing one is opened on "/dev/null", so that no socket
/// can take its number), makes SIGPIPE harmless, and starts the writing thread. From then on
/// exit() and abort() call consoleDrain().
/// Until it is called, and without a thread to be had, every line is written by the thread that
/// prints it. Thread: main, first thing in the program.
void consoleStart();

/// Prints formatted text on standard output, as printf does; the format brings its own line end.
/// Thread: any. Realtime-safe: only within a ConsoleDeferral.
[[gnu::format(printf, 1, 2)]] void consolePrintf(const char* format, ...);

/// Prints a text and a line end, as puts does. Thread and safety as consolePrintf.
void consolePuts(const char* text);

/// As consolePrintf, on standard error.
[[gnu::format(printf, 1, 2)]] void consoleError(const char* format, ...);

/// Prints `text` and what errno means on standard error, as perror does. Safety as consolePrintf.
void consolePerror(const char* text);

/// Waits until what has been printed is written, at most `milliseconds`. Thread: any but capture.
void consoleDrain(int milliseconds = 500);

/// While one exists on a thread, printing there allocates nothing (text beyond 255 bytes is cut),
/// and the part of the queue that other threads leave free is open to it. Realtime-safe: yes.
class ConsoleDeferral {
  public:
    ConsoleDeferral();
    ~ConsoleDeferral();
    ConsoleDeferral(const ConsoleDeferral&) = delete;
    ConsoleDeferral& operator=(const ConsoleDeferral&) = delete;
};
