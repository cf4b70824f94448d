#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// A callback that took longer than half the block period, with what it spent the time on.
/// Nanoseconds; `entry` is CLOCK_MONOTONIC. What is marked (a) is zero without
/// PACED_CAPTURE_ACCOUNT.
struct LongCallback {
    std::atomic<std::int64_t> number;  ///< Of the callback, from 0.
    std::atomic<std::int64_t> entry;
    std::atomic<std::int64_t> wall;
    std::atomic<std::int64_t> processor;      ///< On a processor, as the kernel counts it.
    std::atomic<std::int64_t> queued;         ///< Ready to run, but on no processor.
    std::atomic<std::int64_t> waited;         ///< Inside poll, the time to get back included.
    std::atomic<std::int64_t> intended;       ///< Of `waited`, what the calls asked for at most.
    std::atomic<std::int64_t> pollProcessor;  ///< Of `processor`, inside poll (a).
    std::atomic<std::int64_t> pollQueued;     ///< Of `queued`, inside poll (a).
    std::atomic<std::int64_t> sending;        ///< Of `processor`, inside sendmsg (a).
    std::atomic<std::int64_t> sends;          ///< Calls of it.
    std::atomic<std::int64_t> receiving;      ///< Of `processor`, inside recvmsg (a).
    std::atomic<std::int64_t> receives;       ///< Calls of it, those that found nothing too.
    std::atomic<std::int64_t> encoding;       ///< Of `processor`, inside opus_encode (a).
    std::atomic<std::int64_t> encodes;        ///< Calls of it.
    std::atomic<std::int64_t> passes;         ///< Calls of processBuffer: each may wait for 1 ms.
    std::atomic<std::int64_t> firstCpu;       ///< Number of the processor at the entry.
    std::atomic<std::int64_t> lastCpu;        ///< At the end.
};

/// What the paced capture knows about its callbacks, in a file that other processes map.
///
/// Times are CLOCK_MONOTONIC nanoseconds. All but `clientRounds` is written by the capture
/// thread alone.
struct CaptureTable {
    static constexpr std::size_t REMEMBERED = 1U << 16U;  ///< Power of two; indexed by sequence.
    static constexpr std::size_t DURATIONS = 1U << 20U;   ///< Two hours of callbacks.
    static constexpr std::size_t LONG_CALLBACKS = 1U << 14U;

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

    std::atomic<std::uint64_t> encodes;
    std::atomic<std::int64_t> encodeTime;  ///< Inside opus_encode, ns, all together.

    // Processor time inside these calls, ns; only with PACED_CAPTURE_ACCOUNT.
    std::atomic<std::int64_t> sending;
    std::atomic<std::int64_t> receiving;
    std::atomic<std::int64_t> encoding;
    std::atomic<std::uint64_t> receiveCalls;  ///< Of recvmsg, those that found nothing too.

    std::atomic<std::uint64_t> lateEntries;  ///< Callbacks made over 1 ms behind their time.

    std::atomic<std::uint32_t> duration[DURATIONS];  ///< Of callback n, ns.

    /// The first LONG_CALLBACKS of `longCallbacks`.
    LongCallback longCallback[LONG_CALLBACKS];

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
