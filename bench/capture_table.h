#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// What the paced capture knows about its callbacks, in a file that other processes map.
///
/// Times are CLOCK_MONOTONIC nanoseconds. The capture thread is the only writer.
struct CaptureTable {
    static constexpr std::size_t REMEMBERED = 1U << 16U;  ///< Power of two; indexed by sequence.
    static constexpr std::size_t DURATIONS = 1U << 20U;   ///< Over an hour of callbacks.

    /// Entry time of the callback that sent raw packet `seq` / compressed packet `seq`.
    std::atomic<std::int64_t> rawEntry[REMEMBERED];
    std::atomic<std::int64_t> compressedEntry[REMEMBERED];

    /// Sequence numbers of the first raw and compressed packet; not 0 only in tests of the wrap.
    std::atomic<std::uint32_t> firstRaw;
    std::atomic<std::uint32_t> firstCompressed;

    std::atomic<std::uint64_t> callbacks;      ///< Made so far.
    std::atomic<std::uint64_t> longCallbacks;  ///< Longer than half the block period.
    std::atomic<std::int64_t> processorTime;   ///< Of the callbacks, ns, all together.

    // System calls made by the callbacks.
    std::atomic<std::uint64_t> sends;
    std::atomic<std::uint64_t> receives;
    std::atomic<std::uint64_t> polls;

    std::atomic<std::uint32_t> duration[DURATIONS];  ///< Of callback n, ns.
};

/// Maps `path`, creating it when `create` is set; null when that fails. Never unmapped.
CaptureTable* mapCaptureTable(const char* path, bool create);
