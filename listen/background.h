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

/// Set when work still runs at the end of the program; see workAbandoned().
inline std::atomic<bool> abandonedWork{false};

/// Notes that work in the background may still run, although its result is no longer needed.
/// Thread: any.
inline void noteAbandoned() {
    abandonedWork = true;
}

/// True when background work may still run: the program must then end without exit handlers, which
/// would destroy what the work uses. Thread: any.
inline bool workAbandoned() {
    return abandonedWork;
}

/// Runs `work` on a new thread and returns a future of its result. Unlike std::async's, the future
/// does not wait when it is destroyed: a call that hangs must not delay the end of the program. So
/// `work` must own everything that it uses. When no thread can be created, the result is empty, as
/// after a failure.
template <class Work>
auto inBackground(Work work) -> std::future<decltype(work())> {
    using Result = decltype(work());
    auto task = std::make_shared<std::packaged_task<Result()>>(std::move(work));
    auto result = task->get_future();
    try {
        std::thread([task] { (*task)(); }).detach();
    } catch (const std::system_error&) {  // GCOVR_EXCL_START: no thread can be created
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
