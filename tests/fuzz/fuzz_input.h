#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

/// What every fuzz target starts from. Each defines LLVMFuzzerTestOneInput; libFuzzer or
/// replay_main.cpp calls it, with LLVMFuzzerInitialize before.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Ends the process as a finding when something that must always hold does not.
inline void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

/// Sends the server's lines devNull.
inline void silenceStandardOutput() {
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ::dup2(devNull, STDOUT_FILENO);
    ::close(devNull);
}

/// Cuts an input into values; values beyond its end are zero or empty.
class FuzzInput {
  public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : at(data), end(data + size) {}

    [[nodiscard]] bool empty() const { return at == end; }

    std::uint8_t byte() { return empty() ? std::uint8_t{0} : *at++; }

    std::uint32_t number() {
        std::uint32_t value = 0;
        for (unsigned shift = 0; shift < 32; shift += 8) {
            value |= static_cast<std::uint32_t>(byte()) << shift;
        }
        return value;
    }

    /// The next `length` bytes, or what is left of them.
    std::string bytes(std::size_t length) {
        const std::size_t taken = std::min(length, static_cast<std::size_t>(end - at));
        std::string result(reinterpret_cast<const char*>(at), taken);
        at += taken;
        return result;
    }

    /// As bytes(), on the heap in a block of just this size, so that the address sanitizer sees
    /// every step beyond it; a short text lies in room that its object has anyway.
    std::vector<unsigned char> exactBytes(std::size_t length) {
        const std::size_t taken = std::min(length, static_cast<std::size_t>(end - at));
        std::vector<unsigned char> result(at, at + taken);
        at += taken;
        return result;
    }

    std::string rest() { return bytes(static_cast<std::size_t>(end - at)); }

    /// The bytes up to the next NUL, which is left out.
    std::string text() {
        const auto* const stop = std::find(at, end, std::uint8_t{0});
        std::string result(reinterpret_cast<const char*>(at), static_cast<std::size_t>(stop - at));
        at = stop == end ? end : stop + 1;
        return result;
    }

  private:
    const std::uint8_t* at;
    const std::uint8_t* end;
};
