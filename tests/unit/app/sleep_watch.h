#pragma once

#include <functional>
#include <vector>

/// The program's own calls of Sleep(), diverted at link time; they still sleep. Calls of usleep()
/// and of the test source's own are not among them unless they go through Sleep().

/// The duration of each call until now, in ms.
std::vector<int> sleeps();

/// Calls of exactly this length.
int sleepsOf(int milliseconds);

/// Called on the sleeping thread within each call, when it is set, after the call was counted.
std::function<void(int milliseconds)>& duringSleep();
