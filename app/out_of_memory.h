#pragma once

/// Makes the process end with status 255 and a printed line when memory for our own or
/// Qt's objects runs out, in place of an abort. Packets and web pages are not concerned: their
/// allocations are checked where they are made. Thread: main, before any other thread exists.
void endWhenOutOfMemory();
