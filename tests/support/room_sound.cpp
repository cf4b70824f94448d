// A substitute for the sound library, preloaded: a capture that clicks for the server, an output
// device with exact time stamps for a listener, which notes when the clicks are heard.
//
// Environment: ROOM_SOUND_FILE     where the clicks are noted (required): one time a line, in
//                                  nanoseconds of CLOCK_MONOTONIC. Of the capture: when the last
//                                  frame of a raw packet with a click had been captured; of the
//                                  output: when the middle of the click is heard.
//              ROOM_SOUND_BLOCK    frames that the capture gives at a time (default 337)
//              ROOM_SOUND_LATENCY  of the output device, milliseconds (default 30)
//              ROOM_SOUND_PPM      how much faster than nominal the device is (default 0)
//
// A click is the first half wave of 500 Hz, in the first frames of every 71st packet.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <pthread.h>
#include <vector>

#include <portaudio.h>

namespace {

constexpr std::int64_t NS_PER_SECOND = 1000000000;
constexpr std::uint64_t PACKET = 338;
constexpr std::uint64_t CLICK_INTERVAL = 71;  ///< Packets.
constexpr int CLICK_FRAMES = 48;
constexpr double CLICK_LEVEL = 20000;
constexpr int HEARD_LEVEL = 2500;
constexpr int HEARD_FRAMES = 384;  ///< A click and what is left of it after compression.

PaStreamCallback* callback = nullptr;
void* callbackData = nullptr;
bool captures = false;
double rate = 48000;
unsigned long period = 480;
std::FILE* notes = nullptr;
pthread_t soundThread;
std::atomic<bool> stopRequested{false};

double fromEnvironment(const char* name, double usual) {
    const char* const text = std::getenv(name);
    return text == nullptr ? usual : std::strtod(text, nullptr);
}

std::int64_t clockNs() {
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

void sleepUntil(std::int64_t due) {
    const timespec at = {due / NS_PER_SECOND, due % NS_PER_SECOND};
    ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr);
}

void note(double time) {
    std::fprintf(notes, "%.0f\n", time);
    std::fflush(notes);
}

std::int16_t clickAt(std::uint64_t frame) {
    const std::uint64_t into = frame % (CLICK_INTERVAL * PACKET);
    return into < CLICK_FRAMES
               ? static_cast<std::int16_t>(
                     CLICK_LEVEL * std::sin(M_PI * static_cast<double>(into) / CLICK_FRAMES))
               : std::int16_t{0};
}

void* runCapture(void* /*unused*/) {
    const auto block = static_cast<std::uint64_t>(fromEnvironment("ROOM_SOUND_BLOCK", 337));
    const std::int64_t start = clockNs();
    const auto timeOf = [start](std::uint64_t frames) {
        return static_cast<double>(start) + static_cast<double>(frames) * 1e9 / rate;
    };
    std::vector<std::int16_t> sound(2 * period);
    for (std::uint64_t number = 0; !stopRequested; ++number) {
        for (std::uint64_t i = 0; i < period; ++i) {
            sound[2 * i] = sound[2 * i + 1] = clickAt(number * period + i);
        }
        const std::uint64_t end = (number + 1) * period;
        sleepUntil(static_cast<std::int64_t>(timeOf((end + block - 1) / block * block)));
        callback(sound.data(), nullptr, period, nullptr, 0, callbackData);
        if (number % CLICK_INTERVAL == 0) {
            note(timeOf(end));
        }
    }
    return nullptr;
}

/// Finds clicks in what is played and where their middle is.
class ClickWatch {
  public:
    void take(double level, double time) {
        if (left_ == 0) {
            if (std::abs(level) < HEARD_LEVEL) {
                return;
            }
            left_ = HEARD_FRAMES;
            first_ = time;
            energy_ = moment_ = 0;
        }
        energy_ += level * level;
        moment_ += level * level * (time - first_);
        if (--left_ == 0) {
            note(first_ + moment_ / energy_);
        }
    }

  private:
    int left_ = 0;
    double first_ = 0;
    double energy_ = 0;
    double moment_ = 0;
};

void* runOutput(void* /*unused*/) {
    const double latency = fromEnvironment("ROOM_SOUND_LATENCY", 30) * 1e6;
    const double frame = 1e9 / rate / (1 + fromEnvironment("ROOM_SOUND_PPM", 0) * 1e-6);
    const auto start = static_cast<double>(clockNs());
    std::vector<std::int16_t> sound(2 * period);
    ClickWatch watch;
    for (std::uint64_t number = 0; !stopRequested; ++number) {
        const double due = start + static_cast<double>(number * period) * frame;
        sleepUntil(static_cast<std::int64_t>(due));
        PaStreamCallbackTimeInfo times = {};
        times.currentTime = static_cast<double>(clockNs()) / 1e9;
        times.outputBufferDacTime = (due + latency) / 1e9;
        callback(nullptr, sound.data(), period, &times, 0, callbackData);
        for (std::uint64_t i = 0; i < period; ++i) {
            watch.take(sound[2 * i], due + latency + static_cast<double>(i) * frame);
        }
    }
    return nullptr;
}

}  // namespace

extern "C" {

PaError Pa_Initialize() {
    const char* const path = std::getenv("ROOM_SOUND_FILE");
    notes = path == nullptr ? nullptr : std::fopen(path, "ae");
    return notes == nullptr ? paInternalError : paNoError;
}

PaError Pa_Terminate() {
    return paNoError;
}

const char* Pa_GetErrorText(PaError) {
    return "room sound";
}

PaDeviceIndex Pa_GetDeviceCount() {
    return 1;
}

PaDeviceIndex Pa_GetDefaultInputDevice() {
    return 0;
}

PaDeviceIndex Pa_GetDefaultOutputDevice() {
    return 0;
}

const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex) {
    static const PaDeviceInfo info = {2, "room", 0, 2, 2, 0, 0, 0, 0, 48000};
    return &info;
}

PaError Pa_IsFormatSupported(const PaStreamParameters*, const PaStreamParameters*, double) {
    return paFormatIsSupported;
}

PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters* input, const PaStreamParameters*,
                      double wanted, unsigned long frames, PaStreamFlags,
                      PaStreamCallback* function, void* data) {
    static int opened;
    *stream = &opened;
    captures = input != nullptr;
    rate = wanted;
    period = frames;
    callback = function;
    callbackData = data;
    return paNoError;
}

PaError Pa_StartStream(PaStream*) {
    stopRequested = false;
    return ::pthread_create(&soundThread, nullptr, captures ? runCapture : runOutput, nullptr) == 0
               ? paNoError
               : paInternalError;
}

PaError Pa_IsStreamActive(PaStream*) {
    return 1;
}

const PaStreamInfo* Pa_GetStreamInfo(PaStream*) {
    static PaStreamInfo info = {1, 0, 0, 0};
    info.outputLatency = fromEnvironment("ROOM_SOUND_LATENCY", 30) / 1e3;
    info.sampleRate = rate;
    return &info;
}

PaError Pa_AbortStream(PaStream*) {
    stopRequested = true;
    ::pthread_join(soundThread, nullptr);
    return paNoError;
}

PaError Pa_CloseStream(PaStream*) {
    if (!stopRequested) {
        Pa_AbortStream(nullptr);
    }
    return paNoError;
}
}
