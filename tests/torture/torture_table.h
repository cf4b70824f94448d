#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// The preloaded library's report to the driver, in a file that both map. The layout is known to
/// torture.py.
///
/// A site is a fallible function together with the way through the code by which it was called.
struct TortureTable {
    static constexpr std::size_t SITES = 4096;  ///< Power of two; indexed by hash.
    static constexpr std::size_t NAME_ROOM = 32;
    static constexpr std::size_t WAY_ROOM = 192;

    struct Site {
        std::atomic<std::uint64_t> hash;  ///< 0: free. The same in every run of one build.
        std::atomic<std::uint32_t> calls;
        std::atomic<std::int32_t> live;     ///< Blocks allocated here that were not freed.
        std::atomic<std::int32_t> peak;     ///< The largest value of `live`.
        std::atomic<std::uint32_t> stream;  ///< 1: called while a block of sound is served.
        char function[NAME_ROOM];
        char way[WAY_ROOM];  ///< "module+offset" of the callers, innermost first.
    };

    std::atomic<std::uint32_t> faults;  ///< Calls made to fail: 0 or 1.
    std::uint32_t unused;
    Site site[SITES];
};

/// Counts a call of `function` at `caller` when one of the watched modules makes it.
///
/// Returns true when this very call has to fail. `site` (may be null) becomes the call's site, or
/// null when it does not count. Thread: any. Allocates nothing and keeps errno.
bool tortureCall(const char* function, const void* caller, TortureTable::Site** site = nullptr);

/// Marks the calls of this thread as the stream's for its lifetime.
class ServingSound {
  public:
    ServingSound();
    ~ServingSound();
    ServingSound(const ServingSound&) = delete;
    ServingSound& operator=(const ServingSound&) = delete;
};

/// Looks the modules up again, after a library was loaded.
void refreshModules();

/// The next definition of a function behind this library's own.
void* nextFunction(const char* name);

using DlsymFunction = void*(void*, const char*);

/// The C library's dlsym.
DlsymFunction* realDlsym();
