#include "tests/soak/request_check.h"

#include <algorithm>

#include "stream/wire_format.h"

namespace {

// All three have to pass: callbacks alone are a short time on a fast machine, time alone may be a
// time in which no process ran.
constexpr std::uint64_t CALLBACKS_TO_ANSWER = 4000;
constexpr long ROUNDS_TO_ANSWER = 100;

wire::PacketHeader headerOf(std::uint32_t flags) {
    wire::PacketHeader header;
    header.flags = flags;
    return header;
}

std::string describe(std::uint32_t flags) {
    const wire::PacketHeader header = headerOf(flags);
    return (header.reliable() ? "reliable, rate code " : "best-effort, rate code ") +
           std::to_string(header.rateCode());
}

}  // namespace

void RequestCheck::restart() {
    requests.clear();
    excuse();
}

void RequestCheck::asked(std::uint32_t flags) {
    requests.push_back(flags);
    latestKept = false;
    excuse();
}

void RequestCheck::excuse() {
    sinceCallback = table.callbacks.load();
    since = Clock::now();
    rounds = 0;
}

std::string RequestCheck::take(std::uint32_t flags, bool present) {
    // Requests may overtake each other's answers, but none comes back.
    const auto answered = std::find(requests.begin(), requests.end(), flags);
    if (answered == requests.end()) {
        return "audio that is " + describe(flags) + " when " +
               (requests.empty() ? "nothing" : describe(requests.back())) + " was asked for";
    }
    requests.erase(requests.begin(), answered);
    if (present && flags == requests.back()) {
        kept += latestKept ? 0 : 1;
        latestKept = true;
        excuse();
    }
    return {};
}

bool RequestCheck::latestReliable() const {
    return !requests.empty() && headerOf(requests.back()).reliable();
}

bool RequestCheck::halvesPossible() const {
    return std::any_of(requests.begin(), requests.end(), [](std::uint32_t flags) {
        const std::uint32_t code = headerOf(flags).rateCode();
        return headerOf(flags).reliable() && code != wire::RATE_CODE_RAW &&
               wire::bitRateOf(code) == 0;
    });
}

std::string RequestCheck::overdue(std::chrono::milliseconds timeout) {
    ++rounds;
    const std::uint64_t callbacks = table.callbacks.load() - sinceCallback;
    if (requests.empty() || callbacks < CALLBACKS_TO_ANSWER || rounds < ROUNDS_TO_ANSWER ||
        Clock::now() - since < timeout) {
        return {};
    }
    excuse();
    return "for " + std::to_string(callbacks) + " callbacks no present audio that is " +
           describe(requests.back());
}
