#pragma once

#include <string>
#include <vector>

/// Replaces the console at link time and keeps what the code under test prints.

/// What was printed since the last clear, one entry per call, line ends included.
std::vector<std::string>& recordedConsole();
