#pragma once

#include <chrono>
#include <future>
#include <thread>
#include <utility>

namespace vxlisten {

/// Runs `work` on a thread of its own and returns its result to come. Unlike std::async's, the
/// future does not wait when it is thrown away: a call into a library that hangs must not hold up
/// the end of the program. So `work` may own what it uses, but borrow nothing.
template <class Work>
auto inBackground(Work work) -> std::future<decltype(work())> {
    std::packaged_task<decltype(work())()> task(std::move(work));
    auto result = task.get_future();
    std::thread(std::move(task)).detach();
    return result;
}

/// True once the result of `future` is there. Does not wait.
template <class Result>
bool isReady(const std::future<Result>& future) {
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

}  // namespace vxlisten
