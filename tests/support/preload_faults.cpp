// Makes library calls of the server fail, for the system tests. Loaded with LD_PRELOAD; the
// variable VELANTRIX_FAULTS names the faults, separated by commas:
//
//   close-hangs      Pa_CloseStream never returns
//   host-create      ENet's host cannot be created, for a reason other than a busy port
//   exit-hangs       an exit handler never returns; alarms of any length come after a second
//   short-wait       the wait before the check for a new version takes a tenth of its time
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
    const bool shorter = microseconds == 8000000 && fault("short-wait");
    return original(&usleep, "usleep")(shorter ? microseconds / 10 : microseconds);
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
    return original(&Pa_CloseStream, "Pa_CloseStream")(stream);
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
}
