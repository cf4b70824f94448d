// Makes library calls of the server fail, for the system tests. Loaded with LD_PRELOAD; the
// variable VELANTRIX_FAULTS names the faults, separated by commas:
//
//   close-hangs      Pa_CloseStream never returns
//   close-fails      Pa_CloseStream closes, but returns an error
//   start-fails      Pa_StartStream returns an error
//   no-device-info   Pa_GetDeviceInfo finds nothing
//   enet-init        ENet cannot be initialised
//   host-create      ENet's host cannot be created, for a reason other than a busy port
//   opus-second      the second Opus encoder cannot be created
//   exit-hangs       an exit handler never returns; alarms of any length come after a second
//   slow-disc        what is written to a disc other than by the main thread is not there before
//                    the main thread has slept 100 times for a millisecond; ENet's host is created
//                    after the first such write has begun

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <unistd.h>

#include <enet/enet.h>
#include <opus/opus.h>
#include <portaudio.h>

namespace {

bool fault(const char* name) {
    const char* const wanted = std::getenv("VELANTRIX_FAULTS");
    return wanted != nullptr && std::strstr(wanted, name) != nullptr;
}

template <class Function>
Function* original(Function* /*replacement*/, const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::atomic<bool> writing{false};
std::atomic<int> naps{0};

bool onMainThread() {
    return ::gettid() == ::getpid();
}

[[gnu::destructor]] void exitHandler() {
    while (fault("exit-hangs")) {
        ::pause();
    }
}

}  // namespace

extern "C" {

unsigned alarm(unsigned seconds) {
    return original(&alarm, "alarm")(fault("exit-hangs") ? 1 : seconds);
}

int usleep(useconds_t microseconds) {
    if (onMainThread() && microseconds == 1000) {
        ++naps;
    }
    return original(&usleep, "usleep")(microseconds);
}

int fdatasync(int descriptor) {
    writing.store(true);
    while (fault("slow-disc") && !onMainThread() && naps.load() < 100) {
        ::usleep(100);
    }
    return original(&fdatasync, "fdatasync")(descriptor);
}

PaError Pa_CloseStream(PaStream* stream) {
    while (fault("close-hangs")) {
        ::pause();
    }
    const PaError result = original(&Pa_CloseStream, "Pa_CloseStream")(stream);
    return fault("close-fails") ? static_cast<PaError>(paInternalError) : result;
}

PaError Pa_StartStream(PaStream* stream) {
    if (fault("start-fails")) {
        return paUnanticipatedHostError;
    }
    return original(&Pa_StartStream, "Pa_StartStream")(stream);
}

const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex device) {
    if (fault("no-device-info")) {
        return nullptr;
    }
    return original(&Pa_GetDeviceInfo, "Pa_GetDeviceInfo")(device);
}

int enet_initialize_with_callbacks(ENetVersion version, const ENetCallbacks* callbacks) {
    if (fault("enet-init")) {
        return -1;
    }
    return original(&enet_initialize_with_callbacks, "enet_initialize_with_callbacks")(version,
                                                                                       callbacks);
}

ENetHost* enet_host_create(const ENetAddress* address, size_t peers, size_t channels,
                           enet_uint32 incoming, enet_uint32 outgoing) {
    while (fault("slow-disc") && !writing.load()) {
        ::usleep(100);
    }
    if (fault("host-create")) {
        errno = EACCES;
        return nullptr;
    }
    return original(&enet_host_create, "enet_host_create")(address, peers, channels, incoming,
                                                           outgoing);
}

OpusEncoder* opus_encoder_create(opus_int32 rate, int channels, int application, int* error) {
    static int calls = 0;
    if (++calls == 2 && fault("opus-second")) {
        *error = OPUS_ALLOC_FAIL;
        return nullptr;
    }
    return original(&opus_encoder_create, "opus_encoder_create")(rate, channels, application,
                                                                 error);
}
}
