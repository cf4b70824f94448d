#include "audio/Audio.h"

#include <algorithm>
#include <cassert>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <limits>
#include <mutex>
#include <unistd.h>

#include "app/base/console.h"
#include "app/base/start_values.h"
#include "common/thread_check.h"
#include "stream/capture_thread.h"
#include "stream/wire_format.h"

PaStream* Audio::stream = nullptr;
char* Audio::_CaptureBuffer = nullptr;
char* Audio::_CaptureBufferComp = nullptr;
std::int32_t Audio::_CaptureBufferSizeComp = 0;
std::int32_t Audio::_CurrentCaptureIndexComp = wire::HEADER_LENGTH;

namespace {

constexpr int RATE_48K = 48000;
constexpr int RATE_44K1 = 44100;
constexpr int ABORTED_STATUS = 255;

// PortAudio may not be opened and closed at the same time, as a quit during start-up would. The
// callback never takes it.
std::mutex lifeMutex;
bool closed = false;

/// Sends standard error to "/dev/null" for its lifetime, for the whole process.
class QuietStandardError {
  public:
    QuietStandardError() {
        consoleDrain();
        std::fflush(stderr);
        saved_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
        const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        // Only if it can be restored.
        if (saved_ >= 0 && devNull >= 0) {
            ::dup2(devNull, STDERR_FILENO);
        }
        if (devNull >= 0) {
            ::close(devNull);
        }
    }
    ~QuietStandardError() {
        std::fflush(stderr);
        if (saved_ >= 0) {
            ::dup2(saved_, STDERR_FILENO);
            ::close(saved_);
        }
    }
    QuietStandardError(const QuietStandardError&) = delete;
    QuietStandardError& operator=(const QuietStandardError&) = delete;

  private:
    int saved_;
};

[[noreturn]] void reportAbort(int /*signal*/) {
    consolePuts(
        "VelantrixServer: the sound library failed in its start-up, memory may be short. "
        "Quitting.");
    consoleDrain();
    ::_exit(ABORTED_STATUS);
}

/// For its lifetime an abort prints a message and ends the program. PortAudio asserts that ALSA got
/// memory, but prints that to standard error, which may be turned off.
class AbortReport {
  public:
    AbortReport() {
        struct sigaction action = {};
        action.sa_handler = reportAbort;
        ::sigaction(SIGABRT, &action, &before_);
    }
    ~AbortReport() { ::sigaction(SIGABRT, &before_, nullptr); }
    AbortReport(const AbortReport&) = delete;
    AbortReport& operator=(const AbortReport&) = delete;

  private:
    struct sigaction before_ = {};
};

PaError initializePortAudio() {
    consolePuts("Initializing PortAudio");
    const AbortReport guard;
    const PaError err = Pa_Initialize();
    // Shown only when standard error is open, like the libraries' messages.
    std::fprintf(stderr, "PortAudio Pa_Initialize call completed with return value %d\n", err);
    return err;
}

/// Finds the default input device; null, after a message, when none can be used.
const PaDeviceInfo* findInputDevice(PaStreamParameters& parameters) {
    parameters.device = Pa_GetDefaultInputDevice();
    if (parameters.device == paNoDevice) {
        consoleError("Error: No default input device.\n");
        return nullptr;
    }
    const PaDeviceInfo* const info = Pa_GetDeviceInfo(parameters.device);
    if (info == nullptr) {
        consoleError("Error: Invalid default input device.\n");
    }
    return info;
}

/// The rate to open at: the user's or the device's, if it is one of the two we stream.
int chooseRate(double deviceRate) {
    // Rounds 47999.6 Hz up; rates are positive.
    int rate = static_cast<int>(deviceRate + 0.5);  // NOLINT(bugprone-incorrect-roundings)
    consolePrintf(
        "PortAudio reported default input device sample rate is %d (may not be accurate)\n", rate);
    const char* const wanted = std::getenv("VELANTRIX_SERVER_SAMPLE_RATE");
    if (wanted != nullptr && wanted[0] >= '0' && wanted[0] <= '9') {
        // The lower bits of a number out of range could be a rate that we stream.
        constexpr long MAX_RATE = std::numeric_limits<int>::max();
        rate = static_cast<int>(std::min(std::strtol(wanted, nullptr, 10), MAX_RATE));
    }
    if (rate != RATE_48K && rate != RATE_44K1) {
        consoleError("Sample rate %d not supported, using %d\n", rate, RATE_44K1);
        rate = RATE_44K1;
    }
    return rate;
}

PaError startStream(const PaStreamParameters& input, int rate) {
    PaError err = Pa_OpenStream(&Audio::stream, &input, nullptr, rate, wire::RAW_BLOCK_FRAMES,
                                paClipOff, Audio::recordCallback, nullptr);
    if (err != paNoError) {
        return err;
    }
    err = Pa_StartStream(Audio::stream);
    if (err != paNoError) {
        return err;
    }
    const PaStreamInfo* const info = Pa_GetStreamInfo(Audio::stream);
    if (info != nullptr) {
        consolePrintf("Audio stream info: sample rate = %g, input latency = %g sec\n",
                      info->sampleRate, info->inputLatency);
    }
    return paNoError;
}

/// Everything between PortAudio's start-up and the running stream.
PaError openInput(std::atomic<bool>& isRate48k) {
    PaStreamParameters input = {};
    const PaDeviceInfo* const device = findInputDevice(input);
    if (device == nullptr) {
        return paNotInitialized;
    }
    input.channelCount = 2;
    input.sampleFormat = paInt16;
    input.suggestedLatency = device->defaultLowInputLatency;
    input.hostApiSpecificStreamInfo = nullptr;
    const int rate = chooseRate(device->defaultSampleRate);
    isRate48k.store(rate == RATE_48K);
    return startStream(input, rate);
}

void allocateBuffers() {
    Audio::_CaptureBuffer = new char[wire::RAW_BUFFER_LENGTH];
    Audio::_CaptureBufferComp = new char[wire::COMPRESSED_BUFFER_LENGTH];
    Audio::_CaptureBufferSizeComp = wire::COMPRESSED_BUFFER_LENGTH;
    Audio::_CurrentCaptureIndexComp = wire::HEADER_LENGTH;
}

PaError initializeQuietly() {
    if (getVerbose()) {
        return initializePortAudio();
    }
    const QuietStandardError quiet;
    return initializePortAudio();
}

PaError openCapture(std::atomic<bool>& isRate48k) {
    PaError err = initializeQuietly();
    if (err != paNoError) {
        return err;
    }
    err = openInput(isRate48k);
    if (err != paNoError) {
        isRate48k.store(false);
        Pa_Terminate();
        Audio::stream = nullptr;
    }
    return err;
}

}  // namespace

int Audio::Open(int /*unused*/, std::atomic<bool>& isRate48k) {
    assert(!captureThread.elsewhere());
    const std::lock_guard<std::mutex> lock(lifeMutex);
    isRate48k.store(false);
    if (closed) {
        return paNotInitialized;
    }
    allocateBuffers();
    const PaError err = openCapture(isRate48k);
    if (err != paNoError) {
        consoleError("An error occured while opening the portaudio stream\n");
        consoleError("Error message: %s\n", Pa_GetErrorText(err));
    }
    return err;
}

int Audio::Close() {
    assert(!onMainThread());
    const std::lock_guard<std::mutex> lock(lifeMutex);
    closed = true;
    const PaError err = Pa_CloseStream(stream);
    Pa_Terminate();
    stream = nullptr;
    if (err != paNoError) {
        consoleError("An error occured while closing the portaudio stream\n");
        consoleError("Error number: %d\n", err);
        consoleError("Error message: %s\n", Pa_GetErrorText(err));
    }
    return err;
}
