#include "tests/unit/stream/recorded_console.h"

#include <cstdarg>
#include <cstdio>

#include "app/base/console.h"

std::vector<std::string>& recordedConsole() {
    static std::vector<std::string> lines;
    return lines;
}

void consolePrintf(const char* format, ...) {
    char text[1024];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    recordedConsole().emplace_back(text);
}

void consolePuts(const char* text) {
    consolePrintf("%s\n", text);
}
