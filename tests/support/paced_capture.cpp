// A substitute for the sound library, preloaded into the server: it calls the capture callback at
// exactly the block period and keeps account of it in a CaptureTable.
//
// Environment: PACED_CAPTURE_TABLE  file for the CaptureTable (required)
//              PACED_CAPTURE_SPEED  factor on real time (default 1; 0 = without any pause, not
//                                   even that of the server's wait for its socket)
//              PACED_CAPTURE_LEAD   with speed 0, after how many callbacks without a round of the
//                                   clients the capture waits for one, a moment (default: never)
//
// Each block holds a sound that keeps an encoder busy; its first two frames hold the entry time of
// the callback (8 bytes, nanoseconds, machine order), which a raw client reads back.

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <opus/opus.h>
#include <portaudio.h>

#include "tests/support/capture_table.h"
#include "tests/support/test_sound.h"

namespace {

using testsound::BLOCK_FRAMES;
constexpr std::size_t COMPRESSED_FRAMES = 480;
constexpr std::int64_t NS_PER_SECOND = 1000000000;

CaptureTable* table = nullptr;
PaStreamCallback* callback = nullptr;
double sampleRate = 48000;
double speed = 1;
std::uint64_t lead = 0;  ///< Callbacks; 0: no limit.
pthread_t captureThread;
std::atomic<bool> stopRequested{false};
thread_local bool inCallback = false;

/// Of the compressed packet that the present callback sends; null once noted, and where there is
/// none. Touched by the capture thread only.
std::atomic<std::int64_t>* encodeStart = nullptr;

std::int64_t clockNs(clockid_t clock) {
    timespec now = {};
    ::clock_gettime(clock, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

/// Notes which packets this callback sends. Raw packets are numbered by callbacks, compressed
/// ones by completed groups of 480 frames.
void noteEntry(std::uint64_t number, std::int64_t entry) {
    table->rawEntry[number % CaptureTable::REMEMBERED].store(entry, std::memory_order_relaxed);
    const std::uint64_t before = number * BLOCK_FRAMES / COMPRESSED_FRAMES;
    const std::uint64_t after = (number + 1) * BLOCK_FRAMES / COMPRESSED_FRAMES;
    encodeStart = nullptr;
    if (after != before) {
        const std::uint64_t slot = before % CaptureTable::REMEMBERED;
        table->compressedEntry[slot].store(entry, std::memory_order_relaxed);
        table->encodeStart[slot].store(entry, std::memory_order_relaxed);
        encodeStart = &table->encodeStart[slot];
    }
}

void runCallback(std::uint64_t number, std::int16_t* block) {
    const std::int64_t processorStart = clockNs(CLOCK_THREAD_CPUTIME_ID);
    const std::int64_t entry = clockNs(CLOCK_MONOTONIC);
    noteEntry(number, entry);
    std::memcpy(block, &entry, sizeof entry);
    inCallback = true;
    callback(block, nullptr, BLOCK_FRAMES, nullptr, 0, nullptr);
    inCallback = false;
    table->processorTime.fetch_add(clockNs(CLOCK_THREAD_CPUTIME_ID) - processorStart);
    table->callbacks.store(number + 1, std::memory_order_release);
}

/// Keeps the capture without pauses near its clients. Without clients it runs slowly.
class ClientsPace {
  public:
    /// Before the callback with this number; waits for a tenth of a second at most.
    void keep(std::uint64_t number) {
        for (int waits = 0; rounds == table->clientRounds.load() && number - since >= lead;
             ++waits) {
            if (waits == MAX_WAIT) {
                since = number;
            }
            ::usleep(STEP_US);
        }
        if (rounds != table->clientRounds.load()) {
            rounds = table->clientRounds.load();
            since = number;
        }
    }

  private:
    static constexpr useconds_t STEP_US = 500;
    static constexpr int MAX_WAIT = 200;

    std::uint64_t rounds = 0;
    std::uint64_t since = 0;  ///< The callback before which the last round was seen.
};

void* runCapture(void*) {
    std::vector<std::int16_t> sound = testsound::make();
    const auto period = static_cast<std::int64_t>(BLOCK_FRAMES * NS_PER_SECOND / sampleRate);
    const std::int64_t start = clockNs(CLOCK_MONOTONIC);
    ClientsPace pace;
    for (std::uint64_t number = 0; !stopRequested.load(); ++number) {
        if (speed > 0) {
            const std::int64_t due =
                start + static_cast<std::int64_t>(static_cast<double>(number) *
                                                  static_cast<double>(period) / speed);
            const timespec at = {due / NS_PER_SECOND, due % NS_PER_SECOND};
            ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr);
        } else if (lead > 0) {
            pace.keep(number);
        }
        runCallback(number, &sound[number % testsound::BLOCKS * BLOCK_FRAMES * 2]);
    }
    return nullptr;
}

template <class Function>
Function* theirs(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

void count(std::atomic<std::uint64_t> CaptureTable::*counter) {
    (table->*counter).fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

extern "C" {

PaError Pa_Initialize() {
    const char* const path = std::getenv("PACED_CAPTURE_TABLE");
    table = path == nullptr ? nullptr : mapCaptureTable(path, TableUse::Make);
    if (table == nullptr) {
        std::fputs("paced capture: no table\n", stdout);
        return paInternalError;
    }
    const char* const wanted = std::getenv("PACED_CAPTURE_SPEED");
    speed = wanted == nullptr ? 1 : std::atof(wanted);
    const char* const limit = std::getenv("PACED_CAPTURE_LEAD");
    lead = limit == nullptr ? 0 : std::strtoull(limit, nullptr, 10);
    return paNoError;
}

PaError Pa_Terminate() {
    return paNoError;
}

const char* Pa_GetErrorText(PaError) {
    return "paced capture";
}

PaDeviceIndex Pa_GetDefaultInputDevice() {
    return 0;
}

const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex) {
    static const PaDeviceInfo info = {2, "paced", 0, 2, 0, 0, 0, 0, 0, 48000};
    return &info;
}

PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters*, const PaStreamParameters*,
                      double rate, unsigned long, PaStreamFlags, PaStreamCallback* function,
                      void*) {
    static int opened;
    *stream = &opened;
    sampleRate = rate;
    callback = function;
    return paNoError;
}

PaError Pa_StartStream(PaStream*) {
    return ::pthread_create(&captureThread, nullptr, runCapture, nullptr) == 0 ? paNoError
                                                                               : paInternalError;
}

const PaStreamInfo* Pa_GetStreamInfo(PaStream*) {
    static PaStreamInfo info = {1, 0, 0, 0};
    info.sampleRate = sampleRate;
    return &info;
}

PaError Pa_CloseStream(PaStream*) {
    stopRequested.store(true);
    ::pthread_join(captureThread, nullptr);
    return paNoError;
}

ssize_t sendmsg(int socket, const msghdr* message, int flags) {
    static auto* const real = theirs<decltype(sendmsg)>("sendmsg");
    if (inCallback) {
        count(&CaptureTable::sends);
    }
    return real(socket, message, flags);
}

ssize_t recvmsg(int socket, msghdr* message, int flags) {
    static auto* const real = theirs<decltype(recvmsg)>("recvmsg");
    const ssize_t received = real(socket, message, flags);
    if (inCallback && received > 0) {
        count(&CaptureTable::receives);
    }
    return received;
}

int poll(pollfd* descriptors, nfds_t number, int timeout) {
    static auto* const real = theirs<decltype(poll)>("poll");
    if (!inCallback) {
        return real(descriptors, number, timeout);
    }
    count(&CaptureTable::polls);
    return real(descriptors, number, speed == 0 ? 0 : timeout);
}

opus_int32 opus_encode(OpusEncoder* encoder, const opus_int16* frames, int count,
                       unsigned char* packet, opus_int32 room) {
    static auto* const real = theirs<decltype(opus_encode)>("opus_encode");
    const std::int64_t start = clockNs(CLOCK_MONOTONIC);
    if (encodeStart != nullptr) {
        encodeStart->store(start, std::memory_order_relaxed);
        encodeStart = nullptr;
    }
    const opus_int32 result = real(encoder, frames, count, packet, room);
    table->encodeTime.fetch_add(clockNs(CLOCK_MONOTONIC) - start, std::memory_order_relaxed);
    return result;
}
}
