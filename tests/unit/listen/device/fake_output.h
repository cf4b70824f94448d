#pragma once

#include <atomic>
#include <cstddef>

/// Takes PortAudio's place at link time: one output device that does what a test tells it.
/// Misuse, such as two calls at once or a stream left open, fails the test.
struct FakeOutput {
    std::atomic<bool> present{true};  ///< There is a device to open.
    std::atomic<bool> active{true};   ///< The stream runs.
    std::atomic<bool> closeHangs{false};
    std::atomic<bool> initialised{false};  ///< Between Pa_Initialize and Pa_Terminate.
    std::atomic<int> opened{0};            ///< Streams opened so far.
    std::atomic<int> tries{0};             ///< Pa_Initialize calls.
    std::atomic<int> open{0};              ///< Streams open now.
    std::atomic<double> latency{0};        ///< Seconds, as asked for last.

    /// Asks the open stream for 480 frames, with a note that the device ran dry.
    void ask(bool underflow);
};

FakeOutput& fakeOutput();
