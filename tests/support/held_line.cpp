#include "tests/support/held_line.h"

#include <atomic>
#include <cstdio>
#include <printf.h>
#include <unistd.h>

#include "app/base/console.h"

namespace {

std::atomic<bool> standing{false};
std::atomic<int> millisecondsLeft{0};

// It replaces printf's own conversion of %A.
int printLate(FILE* out, const printf_info* /*info*/, const void* const* /*values*/) {
    standing.store(true);
    while (millisecondsLeft.fetch_sub(1) > 0) {
        usleep(1000);
    }
    return std::fputs("held", out) < 0 ? -1 : 4;
}

int describeValue(const printf_info* /*info*/, std::size_t room, int* types, int* sizes) {
    if (room > 0) {
        types[0] = PA_DOUBLE;
        sizes[0] = sizeof(double);
    }
    return 1;
}

}  // namespace

HeldLine::HeldLine(int milliseconds) {
    standing.store(false);
    millisecondsLeft.store(milliseconds);
    register_printf_specifier('A', printLate, describeValue);
    thread = std::thread([] { consolePrintf("%A\n", 0.0); });
    while (!standing.load()) {
        usleep(1000);
    }
}

HeldLine::~HeldLine() {
    millisecondsLeft.store(0);
    thread.join();
}
