#pragma once

#include <cstddef>
#include <string>

namespace vxlisten {

/// Bytes of the UTF-8 character that begins at `at`, 1 to 4; 0 when there is no valid one.
std::size_t characterLength(const std::string& text, std::size_t at);

/// The longest beginning of `text` of at most `bytes` bytes that ends with a whole character.
std::string cutText(const std::string& text, std::size_t bytes);

}  // namespace vxlisten
