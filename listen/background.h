#pragma once

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

namespace vxlisten {

/// Work that is given up at the end of the program; see workAbandoned().
inline std::atomic<bool> abandonedWork{false};

/// Notes that work in the background goes on although nobody waits for it any more. Thread: any.
inline void noteAbandoned() {
    abandonedWork = true;
}

/// True when background work may still run: the program must then end without exit handlers, which
/// would take away what the work uses. Thread: any.
inline bool workAbandoned() {
    return abandonedWork;
}

/// Runs `work` on a thread of its own and returns its result to come. Unlike std::async's, the
/// future does not wait when it is thrown away: a call into a library that hangs must not hold up
/// the end of the program. So `work` may own what it uses, but borrow nothing.
/// Without a thread to be had the result is an empty one, as when the work failed.
template <class Work>
auto inBackground(Work work) -> std::future<decltype(work())> {
    using Result = decltype(work());
    auto task = std::make_shared<std::packaged_task<Result()>>(std::move(work));
    auto result = task->get_future();
    try {
        std::thread([task] { (*task)(); }).detach();
    } catch (const std::system_error&) {  // GCOVR_EXCL_START: no thread is to be had
        std::promise<Result> nothing;
        if constexpr (std::is_void_v<Result>) {
            nothing.set_value();
        } else {
            nothing.set_value(Result());
        }
        return nothing.get_future();
    }  // GCOVR_EXCL_STOP
    return result;
}

/// True once the result of `future` is there. Does not wait.
template <class Result>
bool isReady(const std::future<Result>& future) {
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

}  // namespace vxlisten
