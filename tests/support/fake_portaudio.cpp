#include "tests/support/fake_portaudio.h"

#include <array>
#include <cstdlib>
#include <memory>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr double LOW_INPUT_LATENCY = 0.0125;
constexpr double REPORTED_INPUT_LATENCY = 0.025;

/// The device in use. None is ever freed: a hung close may still look at it.
std::atomic<FakePortAudio*>& current() {
    static std::atomic<FakePortAudio*> device{new FakePortAudio};
    return device;
}

int streamPlace = 0;
std::atomic<int> callers{0};

/// Notes a call, and that PortAudio must not be used by two threads at once.
class Entry {
  public:
    explicit Entry(const char* name) {
        FakePortAudio& fake = fakePortAudio();
        const std::lock_guard<std::mutex> lock(fake.mutex);
        fake.log.emplace_back(name);
        if (callers.fetch_add(1) != 0) {
            ADD_FAILURE() << name << " while another thread is inside PortAudio";
        }
    }
    ~Entry() { callers.fetch_sub(1); }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
};

void hangWhile(const std::atomic<bool>& hangs, std::atomic<bool>& inside) {
    inside.store(true);
    while (hangs.load()) {
        usleep(1000);
    }
    inside.store(false);
}

}  // namespace

FakePortAudio& fakePortAudio() {
    return *current().load();
}

void resetFakePortAudio() {
    // The old ones stay: a call that hangs may still use one.
    static auto* const all = new std::vector<FakePortAudio*>{current().load()};
    all->push_back(new FakePortAudio);
    current().store(all->back());
    callers.store(0);
}

PaStream* FakePortAudio::handle() {
    return &streamPlace;
}

std::vector<std::string> FakePortAudio::calls() {
    const std::lock_guard<std::mutex> lock(mutex);
    return log;
}

void FakePortAudio::ask(bool underflow) {
    std::vector<std::int16_t> frames(480 * 2);
    callback(nullptr, frames.data(), 480, nullptr, underflow ? paOutputUnderflow : 0, callbackData);
}

int FakePortAudio::deliver(const std::int16_t* samples, unsigned long frames) {
    return callback(samples, nullptr, frames, nullptr, 0, nullptr);
}

PaError Pa_Initialize() {
    const Entry entry("Pa_Initialize");
    FakePortAudio& fake = fakePortAudio();
    EXPECT_FALSE(fake.initialised);
    ++fake.tries;
    hangWhile(fake.initializeHangs, fake.insideInitialize);
    if (fake.initializeAborts) {
        std::abort();
    }
    EXPECT_EQ(write(STDERR_FILENO, fake.chatter.data(), fake.chatter.size()),
              static_cast<ssize_t>(fake.chatter.size()));
    fake.initialised = fake.initializeResult == paNoError;
    return fake.initializeResult;
}

PaError Pa_Terminate() {
    const Entry entry("Pa_Terminate");
    FakePortAudio& fake = fakePortAudio();
    if (!fake.initialised) {
        return paNotInitialized;
    }
    fake.initialised = false;
    fake.streamOpen = false;
    fake.started.store(false);
    return paNoError;
}

PaDeviceIndex Pa_GetDefaultInputDevice() {
    const Entry entry("Pa_GetDefaultInputDevice");
    EXPECT_TRUE(fakePortAudio().initialised);
    return fakePortAudio().defaultDevice;
}

const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex device) {
    const Entry entry("Pa_GetDeviceInfo");
    static PaDeviceInfo info;
    EXPECT_EQ(device, fakePortAudio().defaultDevice);
    info.defaultSampleRate = fakePortAudio().deviceRate;
    info.defaultLowInputLatency = LOW_INPUT_LATENCY;
    info.defaultHighInputLatency = 1.0;
    info.name = "fake";
    info.maxOutputChannels = 2;
    info.defaultLowOutputLatency = LOW_INPUT_LATENCY;
    return fakePortAudio().haveDeviceInfo ? &info : nullptr;
}

PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters* input,
                      const PaStreamParameters* output, double rate, unsigned long framesPerBuffer,
                      PaStreamFlags flags, PaStreamCallback* callback, void* userData) {
    const Entry entry("Pa_OpenStream");
    FakePortAudio& fake = fakePortAudio();
    EXPECT_TRUE(fake.initialised);
    EXPECT_FALSE(fake.streamOpen);
    EXPECT_NE(input == nullptr, output == nullptr);
    if (input != nullptr) {
        EXPECT_EQ(input->device, fake.defaultDevice);
        EXPECT_EQ(input->suggestedLatency, LOW_INPUT_LATENCY);
        EXPECT_EQ(userData, nullptr);
        fake.input = *input;
    } else {
        fake.outputLatency = output->suggestedLatency;
    }
    fake.rate = rate;
    fake.framesPerBuffer = framesPerBuffer;
    fake.flags = flags;
    fake.callback = callback;
    fake.callbackData = userData;
    ++fake.opened;
    // A failed open leaves a handle behind that must not be used.
    *stream = FakePortAudio::handle();
    fake.streamOpen = fake.openResult == paNoError;
    return fake.openResult;
}

PaError Pa_StartStream(PaStream* stream) {
    const Entry entry("Pa_StartStream");
    FakePortAudio& fake = fakePortAudio();
    EXPECT_TRUE(fake.streamOpen);
    EXPECT_EQ(stream, FakePortAudio::handle());
    if (fake.callbackAtStart.load()) {
        const std::array<std::int16_t, 676> silence{};
        fake.deliver(silence.data(), silence.size() / 2);
    }
    fake.started.store(fake.startResult == paNoError);
    return fake.startResult;
}

const PaStreamInfo* Pa_GetStreamInfo(PaStream* stream) {
    const Entry entry("Pa_GetStreamInfo");
    static PaStreamInfo info;
    EXPECT_EQ(stream, FakePortAudio::handle());
    info.sampleRate = fakePortAudio().rate;
    info.inputLatency = REPORTED_INPUT_LATENCY;
    info.outputLatency = fakePortAudio().outputLatency;
    return fakePortAudio().haveStreamInfo ? &info : nullptr;
}

PaError Pa_CloseStream(PaStream* stream) {
    const Entry entry("Pa_CloseStream");
    FakePortAudio& fake = fakePortAudio();
    fake.closedStream = stream;
    hangWhile(fake.closeHangs, fake.insideClose);
    if (stream == nullptr) {
        return fake.initialised ? paBadStreamPtr : paNotInitialized;
    }
    EXPECT_TRUE(fake.streamOpen);
    EXPECT_EQ(stream, FakePortAudio::handle());
    fake.streamOpen = false;
    fake.started.store(false);
    return fake.closeResult;
}

const char* Pa_GetErrorText(PaError error) {
    switch (error) {
        case paNotInitialized:
            return "PortAudio not initialized";
        case paDeviceUnavailable:
            return "Device unavailable";
        case paInternalError:
            return "Internal PortAudio error";
        case paUnanticipatedHostError:
            return "Unanticipated host error";
        default:
            return "another error";
    }
}

// What only players use.
PaDeviceIndex Pa_GetDeviceCount() {
    return fakePortAudio().outputPresent ? fakePortAudio().defaultDevice + 1 : 0;
}

PaDeviceIndex Pa_GetDefaultOutputDevice() {
    return fakePortAudio().outputPresent ? fakePortAudio().defaultDevice : paNoDevice;
}

PaError Pa_IsFormatSupported(const PaStreamParameters* /*input*/,
                             const PaStreamParameters* /*output*/, double /*rate*/) {
    return paFormatIsSupported;
}

PaError Pa_IsStreamActive(PaStream* /*stream*/) {
    return fakePortAudio().active ? 1 : 0;
}

PaError Pa_AbortStream(PaStream* /*stream*/) {
    return paNoError;
}
