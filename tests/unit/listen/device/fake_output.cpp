#include "tests/unit/listen/device/fake_output.h"

#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>
#include <portaudio.h>

namespace {

PaStreamCallback* callback = nullptr;
void* callbackData = nullptr;
int streamPlace = 0;
std::atomic<int> callers{0};

/// Notes that PortAudio must not be used by two threads at once.
class Entry {
  public:
    Entry() { EXPECT_EQ(callers.fetch_add(1), 0); }
    ~Entry() { callers.fetch_sub(1); }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
};

}  // namespace

FakeOutput& fakeOutput() {
    static FakeOutput device;
    return device;
}

void FakeOutput::ask(bool underflow) {
    std::vector<std::int16_t> frames(480 * 2);
    callback(nullptr, frames.data(), 480, nullptr, underflow ? paOutputUnderflow : 0, callbackData);
}

PaError Pa_Initialize() {
    const Entry entry;
    EXPECT_FALSE(fakeOutput().initialised);
    ++fakeOutput().tries;
    fakeOutput().initialised = true;
    return paNoError;
}

PaError Pa_Terminate() {
    const Entry entry;
    EXPECT_TRUE(fakeOutput().initialised);
    EXPECT_EQ(fakeOutput().open, 0);
    fakeOutput().initialised = false;
    return paNoError;
}

PaDeviceIndex Pa_GetDeviceCount() {
    return fakeOutput().present ? 1 : 0;
}

PaDeviceIndex Pa_GetDefaultOutputDevice() {
    return fakeOutput().present ? 0 : paNoDevice;
}

const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex) {
    static PaDeviceInfo info;
    info.name = "fake";
    info.maxOutputChannels = 2;
    info.defaultSampleRate = 48000;
    info.defaultLowOutputLatency = 0.01;
    return &info;
}

PaError Pa_IsFormatSupported(const PaStreamParameters*, const PaStreamParameters*, double) {
    return paFormatIsSupported;
}

PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters*,
                      const PaStreamParameters* output, double, unsigned long, PaStreamFlags,
                      PaStreamCallback* function, void* data) {
    const Entry entry;
    EXPECT_TRUE(fakeOutput().initialised);
    EXPECT_EQ(++fakeOutput().open, 1);
    fakeOutput().latency = output->suggestedLatency;
    callback = function;
    callbackData = data;
    *stream = &streamPlace;
    ++fakeOutput().opened;
    return paNoError;
}

PaError Pa_StartStream(PaStream*) {
    fakeOutput().active = true;
    return paNoError;
}

PaError Pa_IsStreamActive(PaStream*) {
    return fakeOutput().active ? 1 : 0;
}

const PaStreamInfo* Pa_GetStreamInfo(PaStream*) {
    static PaStreamInfo info;
    info.outputLatency = fakeOutput().latency;
    return &info;
}

PaError Pa_AbortStream(PaStream*) {
    return paNoError;
}

PaError Pa_CloseStream(PaStream*) {
    const Entry entry;
    while (fakeOutput().closeHangs) {
        usleep(1000);
    }
    --fakeOutput().open;
    return paNoError;
}

const char* Pa_GetErrorText(PaError) {
    return "an error";
}
