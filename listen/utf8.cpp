#include "listen/utf8.h"

#include <algorithm>

namespace vxlisten {

namespace {

unsigned char byteAt(const std::string& text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

bool continues(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

/// What the first two bytes of a character promise; refuses overlong forms and surrogates.
std::size_t promisedLength(unsigned char first, unsigned char second) {
    if (first < 0x80) {
        return 1;
    }
    if (!continues(second)) {
        return 0;
    }
    if (first >= 0xC2 && first <= 0xDF) {
        return 2;
    }
    if (first >= 0xE0 && first <= 0xEF) {
        const bool overlong = first == 0xE0 && second < 0xA0;
        const bool surrogate = first == 0xED && second >= 0xA0;
        return overlong || surrogate ? 0 : 3;
    }
    const bool inRange = (first == 0xF0 && second >= 0x90) || (first > 0xF0 && first < 0xF4) ||
                         (first == 0xF4 && second < 0x90);
    return inRange ? 4 : 0;
}

}  // namespace

std::size_t characterLength(const std::string& text, std::size_t at) {
    if (at >= text.size()) {
        return 0;
    }
    const std::size_t length = promisedLength(byteAt(text, at), byteAt(text, at + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if (!continues(byteAt(text, at + i))) {
            return 0;
        }
    }
    return length;
}

bool steersTerminal(const std::string& text, std::size_t at, std::size_t length) {
    const unsigned char first = byteAt(text, at);
    if (length <= 1) {
        return first < 0x20 || first >= 0x7F;
    }
    return first == 0xC2 && byteAt(text, at + 1) < 0xA0;
}

std::string plainText(const std::string& text) {
    std::string result;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t length = std::max<std::size_t>(1, characterLength(text, at));
        result += steersTerminal(text, at, length) ? "?" : text.substr(at, length);
        at += length;
    }
    return result;
}

std::string cutText(const std::string& text, std::size_t bytes) {
    if (text.size() <= bytes) {
        return text;
    }
    std::size_t end = 0;
    while (end < bytes) {
        const std::size_t next = end + std::max<std::size_t>(1, characterLength(text, end));
        if (next > bytes) {
            break;
        }
        end = next;
    }
    return text.substr(0, end);
}

}  // namespace vxlisten
