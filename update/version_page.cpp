#include "update/version_page.h"

#include <algorithm>

namespace {

constexpr std::string_view FRAME_MARK = "frame src";
constexpr std::string_view LINE_ENDS = "\r\n";
constexpr std::size_t MAX_PAGE_WITHOUT_FRAME = 15;
constexpr std::size_t MAX_IGNORED_ADDRESS = 7;
constexpr std::size_t MIN_VERSION_LENGTH = 3;
constexpr std::size_t MAX_VERSION_LENGTH = 10;

std::string_view pageText(const char* memory, std::size_t size) {
    return {memory, static_cast<std::size_t>(std::find(memory, memory + size, '\0') - memory)};
}

}  // namespace

std::string_view frameAddress(const char* memory, std::size_t size) {
    if (size <= MAX_PAGE_WITHOUT_FRAME) {
        return {};
    }
    const std::string_view text = pageText(memory, size);
    const std::size_t mark = text.find(FRAME_MARK);
    if (mark == std::string_view::npos) {
        return {};
    }
    const std::size_t opening = text.find('"', mark + FRAME_MARK.size());
    if (opening == std::string_view::npos) {
        return {};
    }
    const std::size_t closing = text.find('"', opening + 1);
    if (closing == std::string_view::npos) {
        return {};
    }
    const std::string_view address = text.substr(opening + 1, closing - opening - 1);
    return address.size() > MAX_IGNORED_ADDRESS ? address : std::string_view();
}

std::string_view firstLine(const char* memory, std::size_t size) {
    const std::string_view text = pageText(memory, size);
    const std::size_t begin = text.find_first_not_of(LINE_ENDS);
    if (begin == std::string_view::npos) {
        return {};
    }
    const std::size_t end = text.find_first_of(LINE_ENDS, begin);
    return text.substr(begin, end - begin);
}

bool isVersionText(std::string_view text) {
    return text.size() >= MIN_VERSION_LENGTH && text.size() <= MAX_VERSION_LENGTH &&
           text.front() >= '0' && text.front() <= '9';
}
