#include "tests/support/call_faults.h"

#include <array>
#include <mutex>

namespace {

struct Plan {
    int count = 0;
    int failAt = -1;  // Number of the call that fails; EVERY_CALL; negative: none.
    int error = 0;
    std::vector<std::vector<int>> arguments;
};

std::mutex mutex;
std::array<Plan, static_cast<std::size_t>(Call::Count)> plans;

std::vector<std::string>& names() {
    static auto* const log = new std::vector<std::string>;
    return *log;
}

Plan& planOf(Call call) {
    return plans[static_cast<std::size_t>(call)];
}

}  // namespace

void failCall(Call call, int nth, int error) {
    const std::lock_guard<std::mutex> lock(mutex);
    Plan& plan = planOf(call);
    plan.failAt = nth == EVERY_CALL ? EVERY_CALL : plan.count + nth;
    plan.error = error;
}

int countOf(Call call) {
    const std::lock_guard<std::mutex> lock(mutex);
    return planOf(call).count;
}

void resetCalls() {
    const std::lock_guard<std::mutex> lock(mutex);
    plans = {};
    names().clear();
}

std::vector<std::string> callLog() {
    const std::lock_guard<std::mutex> lock(mutex);
    return names();
}

std::vector<std::vector<int>> argumentsOf(Call call) {
    const std::lock_guard<std::mutex> lock(mutex);
    return planOf(call).arguments;
}

bool& serviceWithoutWaiting() {
    static bool value = false;
    return value;
}

std::function<void()>& afterThreadCreation() {
    static auto* const hook = new std::function<void()>;
    return *hook;
}

int noteCall(Call call, const char* name, std::initializer_list<int> arguments) {
    if (UncountedCalls::active()) {
        return 0;
    }
    const std::lock_guard<std::mutex> lock(mutex);
    names().emplace_back(name);
    Plan& plan = planOf(call);
    ++plan.count;
    if (arguments.size() > 0) {
        plan.arguments.emplace_back(arguments);
    }
    return plan.failAt == EVERY_CALL || plan.failAt == plan.count ? plan.error : 0;
}
