#pragma once

#include <chrono>

/// Lets the clock of the program under test, ENet's included, be later than it is: for time-outs
/// that nobody wants to wait for. The test executable's calls of clock_gettime are diverted at link
/// time ("--wrap"); those inside the libraries are not, the test's own deadlines among them.
void shiftClock(std::chrono::milliseconds time);
