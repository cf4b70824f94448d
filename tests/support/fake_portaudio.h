#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include <portaudio.h>

/// Replaces PortAudio at link time: one device, for capture or for output, that a test controls,
/// and that records requests. Calls that make no sense (a stream opened before PortAudio is
/// initialised, a foreign stream, two calls at once, other parameters than the program's own) fail
/// the test. Functions that the program does not use are missing, so a new use does not link.
struct FakePortAudio {
    // What the calls return. Set before the code under test runs.
    PaError initializeResult = paNoError;
    PaError openResult = paNoError;
    PaError startResult = paNoError;
    PaError closeResult = paNoError;
    PaDeviceIndex defaultDevice = 3;
    bool haveDeviceInfo = true;
    bool haveStreamInfo = true;
    double deviceRate = 48000.0;
    std::string chatter;                  ///< Written to descriptor 2 by Pa_Initialize.
    std::atomic<bool> closeHangs{false};  ///< Pa_CloseStream returns when this is cleared.
    bool initializeAborts = false;
    std::atomic<bool> initializeHangs{false};
    std::atomic<bool> callbackAtStart{
        false};  ///< Pa_StartStream delivers a block before it returns.

    std::atomic<bool> outputPresent{true};  ///< There is a device to play on.
    std::atomic<bool> active{true};         ///< What Pa_IsStreamActive says.

    // What was asked.
    std::atomic<int> tries{0};             ///< Pa_Initialize calls.
    std::atomic<int> opened{0};            ///< Opened streams.
    std::atomic<double> outputLatency{0};  ///< Seconds, as asked for last.
    std::atomic<bool> started{false};
    std::atomic<bool> insideClose{false};
    std::atomic<bool> insideInitialize{false};
    PaStreamParameters input = {};
    double rate = 0.0;
    PaStreamFlags flags = 0;
    unsigned long framesPerBuffer = 0;
    PaStreamCallback* callback = nullptr;
    void* callbackData = nullptr;
    PaStream* closedStream = nullptr;

    /// Names of the calls in their order, Pa_GetErrorText left out.
    std::vector<std::string> calls();

    /// Calls the stream's callback with interleaved samples on the calling thread (empty: none).
    int deliver(const std::int16_t* samples, unsigned long frames);

    /// Requests 480 frames from the output's callback, with or without an underrun.
    void ask(bool underflow);

    /// The value that the fake's stream handle has while a stream is open.
    static PaStream* handle();

    std::mutex mutex;
    std::vector<std::string> log;
    std::atomic<bool> initialised{false};
    std::atomic<bool> streamOpen{false};
};

FakePortAudio& fakePortAudio();

/// A new device with the values above. Nothing of the program may be inside PortAudio.
void resetFakePortAudio();

/// The same, and the device itself.
inline FakePortAudio& freshFakePortAudio() {
    resetFakePortAudio();
    return fakePortAudio();
}
