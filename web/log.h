#pragma once

#include <string>

namespace vxweb {

/// Prints a line to standard output. It is lost when standard output would block: the sound must
/// not wait for a log. Thread: any.
void say(const std::string& line);

/// Prints "velantrix-web: MESSAGE" to standard error. Thread: any.
void complain(const std::string& sentence);

}  // namespace vxweb
