#pragma once

/// Makes the process end with status 255 and a printed line when memory for our own or
/// Qt's objects runs out, in place of an abort. Packets and web pages are not concerned: their
/// allocations are checked where they are made. Thread: main, before any thread but the console's
/// exists.
void endWhenOutOfMemory();

/// While it lives, memory that runs out in this thread is thrown as std::bad_alloc, for its owner
/// to catch: for work that the program can do without. Thread: any, one at a time in each.
class ThrowWhenOutOfMemory {
  public:
    ThrowWhenOutOfMemory();
    ~ThrowWhenOutOfMemory();
    ThrowWhenOutOfMemory(const ThrowWhenOutOfMemory&) = delete;
    ThrowWhenOutOfMemory& operator=(const ThrowWhenOutOfMemory&) = delete;
};
