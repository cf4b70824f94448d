#include "tests/support/driven_capture.h"

#include <atomic>
#include <unistd.h>

namespace {

constexpr int PATIENCE_MS = 10000;
constexpr double RATE = 48000.0;

PaStreamCallback* callback = nullptr;
std::atomic<bool> started{false};
int anyStream = 0;

}  // namespace

bool DrivenCapture::waitForStart() {
    for (int waited = 0; waited < PATIENCE_MS && !started.load(); ++waited) {
        usleep(1000);
    }
    return started.load();
}

void DrivenCapture::deliver(const std::vector<std::int16_t>& samples) {
    callback(samples.data(), nullptr, samples.size() / 2, nullptr, 0, nullptr);
}

PaError Pa_Initialize() {
    return paNoError;
}

PaError Pa_Terminate() {
    return paNoError;
}

PaDeviceIndex Pa_GetDefaultInputDevice() {
    return 0;
}

const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex /*device*/) {
    static PaDeviceInfo info;
    info.defaultSampleRate = RATE;
    return &info;
}

PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters* /*input*/,
                      const PaStreamParameters* /*output*/, double /*rate*/,
                      unsigned long /*framesPerBuffer*/, PaStreamFlags /*flags*/,
                      PaStreamCallback* streamCallback, void* /*userData*/) {
    callback = streamCallback;
    *stream = &anyStream;
    return paNoError;
}

PaError Pa_StartStream(PaStream* /*stream*/) {
    started.store(true);
    return paNoError;
}

const PaStreamInfo* Pa_GetStreamInfo(PaStream* /*stream*/) {
    return nullptr;
}

PaError Pa_CloseStream(PaStream* /*stream*/) {
    return paNoError;
}

const char* Pa_GetErrorText(PaError /*error*/) {
    return "error of the driven capture";
}
