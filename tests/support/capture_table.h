#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// What the paced capture knows about its callbacks, in a file that other processes map.
///
/// Times are CLOCK_MONOTONIC nanoseconds. All but `clientRounds` is written by the capture
/// thread alone.
struct CaptureTable {
    static constexpr std::size_t REMEMBERED = 1U << 16U;  ///< Power of two; indexed by sequence.

    /// Entry time of the callback that sent raw packet `seq` / compressed packet `seq`.
    std::atomic<std::int64_t> rawEntry[REMEMBERED];
    std::atomic<std::int64_t> compressedEntry[REMEMBERED];

    /// Sequence numbers of the first raw and compressed packet; not 0 only in tests of the wrap.
    std::atomic<std::uint32_t> firstRaw;
    std::atomic<std::uint32_t> firstCompressed;

    std::atomic<std::uint64_t> callbacks;     ///< Until now.
    std::atomic<std::int64_t> processorTime;  ///< Of the callbacks, ns, all together.

    // System calls made by the callbacks.
    std::atomic<std::uint64_t> sends;
    std::atomic<std::uint64_t> receives;
    std::atomic<std::uint64_t> polls;

    std::atomic<std::int64_t> encodeTime;  ///< Inside opus_encode, ns, all together.

    /// When the encoding of compressed packet `seq` began (its entry when nothing was encoded).
    std::atomic<std::int64_t> encodeStart[REMEMBERED];

    /// How often clients of a capture without pauses have all had their turn; they write it.
    std::atomic<std::uint64_t> clientRounds;
};

enum class TableUse {
    Make,  ///< By the capture: creates the file.
    Read,
    Tell,  ///< By clients that write `clientRounds`.
};

/// Maps the file `path`; null when that fails. Never unmapped.
CaptureTable* mapCaptureTable(const char* path, TableUse use);
