#include "tests/unit/app/sleep_watch.h"

#include <algorithm>
#include <mutex>

namespace {

std::mutex mutex;

std::vector<int>& lengths() {
    static auto* const list = new std::vector<int>;
    return *list;
}

}  // namespace

std::vector<int> sleeps() {
    const std::lock_guard<std::mutex> lock(mutex);
    return lengths();
}

int sleepsOf(int milliseconds) {
    const std::vector<int> all = sleeps();
    return static_cast<int>(std::count(all.begin(), all.end(), milliseconds));
}

std::function<void(int)>& duringSleep() {
    static auto* const hook = new std::function<void(int)>;
    return *hook;
}

// void Sleep(int), by the name that the linker knows it by.
extern "C" {

void __real__Z5Sleepi(int milliseconds);

void __wrap__Z5Sleepi(int milliseconds) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        lengths().push_back(milliseconds);
    }
    if (duringSleep()) {
        duringSleep()(milliseconds);
    }
    __real__Z5Sleepi(milliseconds);
}
}
