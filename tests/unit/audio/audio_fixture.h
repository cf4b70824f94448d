#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "audio/Audio.h"
#include "stream/capture_rate.h"
#include "tests/support/child_run.h"
#include "tests/support/fake_portaudio.h"

/// What the code under test handed to the sending side.
struct HandOver {
    const char* buffer;
    int length;
    bool hasInput;
    std::vector<std::int16_t> samples;  ///< Copied: everything behind the header room.
    std::int32_t compressionIndex;      ///< At the time of the call.
};

/// The processed blocks, in order; replaces the send path.
std::vector<HandOver>& handOvers();

/// What the stand-in for the send path returns; 0 until a test says otherwise.
int& sendPathResult();

/// Audio::Close() on a thread of its own.
int closeAudio();

/// Runs `body` in a child process in which "-verbose" was given or not.
ChildRun runWithVerbose(bool verbose, const std::function<void()>& body);
