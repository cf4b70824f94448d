#include "tests/fakes/call_faults.h"

#include <array>
#include <mutex>

namespace {

struct Plan {
    int count = 0;
    int failAt = -1;  // Number of the call that fails; EVERY_CALL; negative: none.
    int error = 0;
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

thread_local int DivertedCall::depth = 0;

void failCall(Call call, int nth, int error) {
    const std::lock_guard<std::mutex> alone(mutex);
    Plan& plan = planOf(call);
    plan.failAt = nth == EVERY_CALL ? EVERY_CALL : plan.count + nth;
    plan.error = error;
}

int countOf(Call call) {
    const std::lock_guard<std::mutex> alone(mutex);
    return planOf(call).count;
}

void resetCalls() {
    const std::lock_guard<std::mutex> alone(mutex);
    plans = {};
    names().clear();
}

std::vector<std::string> callLog() {
    const std::lock_guard<std::mutex> alone(mutex);
    return names();
}

int noteCall(Call call, const char* name) {
    const std::lock_guard<std::mutex> alone(mutex);
    names().emplace_back(name);
    Plan& plan = planOf(call);
    ++plan.count;
    return plan.failAt == EVERY_CALL || plan.failAt == plan.count ? plan.error : 0;
}
