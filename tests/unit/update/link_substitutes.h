#pragma once

#include <ctime>
#include <functional>
#include <optional>
#include <string>

/// Substitutes for functions of the system and the program in these test programs (the linker leads
/// the calls here). Each one calls the real function unless a test says otherwise.
struct LinkSubstitutes {
    std::optional<std::time_t> now;               ///< What time() returns.
    std::function<void(int milliseconds)> sleep;  ///< In the place of Sleep().
    std::function<int(const char* command)> system;
    bool curlLibraryMissing = false;
    std::string curlFunctionMissing;  ///< Its name; empty: none.
    bool reallocFails = false;
};

/// Changed by a test before it starts other threads.
extern LinkSubstitutes linkSubstitutes;

/// Sleep() itself.
void reallySleep(int milliseconds);
