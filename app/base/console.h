#pragma once

/// The program's lines on standard output and standard error.
///
/// One thread writes all of them, in the order in which they were printed, each in one write and
/// without a stdio buffer: they appear at once in a pipe or a journal and do not mix. A thread that
/// prints only puts a line into a bounded queue, so only the writing thread waits for a reader.
/// When the queue is full the line is lost; a later line says how many were.

/// Prepares the standard descriptors (a missing one is opened on "/dev/null", so that no socket can
/// take its number), makes SIGPIPE harmless, and starts the writing thread. From then on exit() and
/// abort() call consoleDrain(). Before the call, and when the thread cannot be created, the thread
/// that prints a line writes it. Thread: main, first thing in the program.
void consoleStart();

/// Prints formatted text on standard output, as printf does; the format contains the line end.
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
/// and the thread may use the reserved half of the queue. Realtime-safe: yes.
class ConsoleDeferral {
  public:
    ConsoleDeferral();
    ~ConsoleDeferral();
    ConsoleDeferral(const ConsoleDeferral&) = delete;
    ConsoleDeferral& operator=(const ConsoleDeferral&) = delete;
};
