#pragma once

/// Makes the process end with status 255 and a printed line, instead of an abort, when memory for
/// our own or Qt's objects runs out. Allocations of packets and web pages are checked where they
/// are made. Thread: main, before any thread but the console's exists.
void endWhenOutOfMemory();

/// While it exists, std::bad_alloc is thrown when memory runs out in this thread; its owner catches
/// it. For work that the program can do without. Thread: any, one at a time in each.
class ThrowWhenOutOfMemory {
  public:
    ThrowWhenOutOfMemory();
    ~ThrowWhenOutOfMemory();
    ThrowWhenOutOfMemory(const ThrowWhenOutOfMemory&) = delete;
    ThrowWhenOutOfMemory& operator=(const ThrowWhenOutOfMemory&) = delete;
};
