#pragma once

#include <functional>
#include <string>

/// Runs `body` in a child process, so that it finds fresh process-wide state, and returns what the
/// child wrote to standard output and standard error, in order. A child that does not end well
/// adds a line "(ended with status N)".
std::string transcript(const std::function<void()>& body);
