#include "listen/device/audio_output.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "listen/clock.h"
#include "listen/device/stderr_mute.h"

namespace vxlisten {

namespace {

constexpr int CHANNELS = 2;
constexpr int PREFERRED_RATE = 48000;
constexpr unsigned long FRAMES_PER_BUFFER = 480;

/// The devices that can play stereo; PortAudio must be initialised.
std::vector<OutputDevice> listDevices() {
    std::vector<OutputDevice> result;
    for (PaDeviceIndex i = 0; i < Pa_GetDeviceCount(); ++i) {
        const PaDeviceInfo* const info = Pa_GetDeviceInfo(i);
        if (info != nullptr && info->maxOutputChannels >= CHANNELS) {
            result.push_back({i, info->name, i == Pa_GetDefaultOutputDevice()});
        }
    }
    return result;
}

PaDeviceIndex findDevice(const std::string& wanted) {
    const std::vector<OutputDevice> devices = listDevices();
    const auto find = [&devices](const auto& fits) {
        const auto found = std::find_if(devices.begin(), devices.end(), fits);
        return found != devices.end() ? found->index : paNoDevice;
    };
    if (wanted.empty()) {
        return find([](const OutputDevice& device) { return device.isDefault; });
    }
    const PaDeviceIndex exact =
        find([&wanted](const OutputDevice& device) { return device.name == wanted; });
    return exact != paNoDevice ? exact : find([&wanted](const OutputDevice& device) {
        return device.name.find(wanted) != std::string::npos;
    });
}

int chooseRate(const PaStreamParameters& parameters, const PaDeviceInfo& info) {
    return Pa_IsFormatSupported(nullptr, &parameters, PREFERRED_RATE) == paFormatIsSupported
               ? PREFERRED_RATE
               : static_cast<int>(info.defaultSampleRate);
}

/// Empty for a value that is not known.
std::optional<double> known(double value) {
    return std::isnan(value) ? std::nullopt : std::optional(value);
}

}  // namespace

AudioOutput::~AudioOutput() {
    if (stream_ != nullptr) {
        Pa_AbortStream(stream_);
        Pa_CloseStream(stream_);
    }
    if (initialized_) {
        Pa_Terminate();
    }
}

std::vector<OutputDevice> AudioOutput::devices() {
    const StderrMute mute;
    if (Pa_Initialize() != paNoError) {
        return {};
    }
    std::vector<OutputDevice> result = listDevices();
    Pa_Terminate();
    std::stable_partition(result.begin(), result.end(),
                          [](const OutputDevice& device) { return device.isDefault; });
    return result;
}

bool AudioOutput::fail(const std::string& reason) {
    error_ = "cannot play sound: " + reason;
    return false;
}

bool AudioOutput::open(const std::string& device, const PlayoutSettings& settings, double latencyMs,
                       std::shared_ptr<BlockQueue> queue) {
    const PaError result = Pa_Initialize();
    if (result != paNoError) {
        return fail(Pa_GetErrorText(result));
    }
    initialized_ = true;
    const PaDeviceIndex index = findDevice(device);
    if (index == paNoDevice) {
        return fail(device.empty() ? "there is no output device"
                                   : "there is no output device named '" + device + "'");
    }
    return start(index, settings, latencyMs, std::move(queue));
}

bool AudioOutput::start(PaDeviceIndex device, const PlayoutSettings& settings, double latencyMs,
                        std::shared_ptr<BlockQueue> queue) {
    const PaDeviceInfo* const info = Pa_GetDeviceInfo(device);
    PaStreamParameters parameters = {};
    parameters.device = device;
    parameters.channelCount = CHANNELS;
    parameters.sampleFormat = paInt16;
    parameters.suggestedLatency = std::max(info->defaultLowOutputLatency, latencyMs / 1000.0);
    const int rate = chooseRate(parameters, *info);
    PaError result = Pa_OpenStream(&stream_, nullptr, &parameters, rate, FRAMES_PER_BUFFER,
                                   paNoFlag, onOutput, this);
    if (result != paNoError) {
        stream_ = nullptr;
        return fail(Pa_GetErrorText(result));
    }
    playout_ = std::make_unique<Playout>(rate, settings, outputLatencyMs(), std::move(queue));
    result = Pa_StartStream(stream_);
    return result == paNoError || fail(Pa_GetErrorText(result));
}

double AudioOutput::outputLatencyMs() const {
    const PaStreamInfo* const info = Pa_GetStreamInfo(stream_);
    return info != nullptr ? info->outputLatency * 1000.0 : 0.0;
}

bool AudioOutput::alive() const {
    return Pa_IsStreamActive(stream_) == 1;
}

Playback AudioOutput::figures() const {
    const PlayoutFigures& figures = playout_->figures();
    Playback result;
    result.playing = figures.playing;
    result.bufferMs = figures.depthMs;
    result.targetMs = figures.targetMs;
    result.jitterMs = figures.jitterMs;
    result.outputLatencyMs = outputLatencyMs();
    result.correctionPpm = figures.correctionPpm;
    result.delayMs = known(figures.delayMs);
    result.inStepMs = known(figures.inStepMs);
    result.concealed = figures.concealed;
    result.skipped = figures.skipped;
    result.stretched = figures.stretched;
    result.deviceUnderruns = deviceUnderruns_;
    result.underruns = figures.underruns + result.deviceUnderruns;
    return result;
}

void AudioOutput::render(std::int16_t* output, std::size_t frames, double latency, bool underflow) {
    const std::int64_t now = steadyNow();
    if (underflow) {
        ++deviceUnderruns_;
        playout_->noteDeviceUnderrun();
    }
    ++calls_;
    playout_->render(output, frames, now, latency);
}

int AudioOutput::onOutput(const void* /*input*/, void* output, unsigned long frames,
                          const PaStreamCallbackTimeInfo* time, PaStreamCallbackFlags flags,
                          void* self) {
    const double latency = time != nullptr ? (time->outputBufferDacTime - time->currentTime) * 1e6
                                           : OutputClock::UNKNOWN;
    static_cast<AudioOutput*>(self)->render(static_cast<std::int16_t*>(output), frames, latency,
                                            (flags & paOutputUnderflow) != 0);
    return paContinue;
}

}  // namespace vxlisten
