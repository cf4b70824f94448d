#pragma once

#include <cstddef>
#include <string>

namespace vxlisten {

/// Bytes of the UTF-8 character that begins at `at`, 1 to 4; 0 when there is no valid one.
std::size_t characterLength(const std::string& text, std::size_t at);

/// The longest beginning of `text` of at most `bytes` bytes that ends with a whole character.
std::string cutText(const std::string& text, std::size_t bytes);

/// True for a character that may steer a terminal: the `length` bytes at `at`, as characterLength()
/// counts them. Besides the ASCII ones these are U+0080 to U+009F, of which U+009B begins a
/// sequence as ESC [ does, and bytes that are no UTF-8, which older terminals take for those.
bool steersTerminal(const std::string& text, std::size_t at, std::size_t length);

/// `text` with a "?" in place of every character that may steer a terminal.
std::string plainText(const std::string& text);

}  // namespace vxlisten
