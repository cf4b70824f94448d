#pragma once

#include <cstddef>
#include <string>

namespace vxlisten {

/// The first `bytes` bytes of UTF-8 `text` at most, cut at the end of a character.
inline std::string cutText(const std::string& text, std::size_t bytes) {
    while (bytes > 0 && bytes < text.size() && (text[bytes] & 0xC0) == 0x80) {
        --bytes;
    }
    return text.substr(0, bytes);
}

}  // namespace vxlisten
