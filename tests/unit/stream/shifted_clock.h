#pragma once

#include <chrono>

/// Advances the clock of the program under test, also ENet's, for long time-outs. The test
/// executable's calls of clock_gettime are diverted at link time ("--wrap"); those inside the
/// libraries are not, the test's own deadlines among them.
void shiftClock(std::chrono::milliseconds time);
