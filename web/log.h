#pragma once

#include <string>

namespace vxweb {

/// Prints a line to standard output. A line is lost when nobody reads what was printed before: the
/// sound does not wait for a log. Thread: any.
void say(const std::string& line);

/// Prints "velantrix-web: SENTENCE" to standard error. Thread: any.
void complain(const std::string& sentence);

}  // namespace vxweb
