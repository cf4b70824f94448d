// Calls of the system and of the sound, network, codec and web libraries that fail. Which others
// the programs make, and why they are left alone, stands in torture_imports.py.

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

#include <curl/curl.h>
#include <enet/enet.h>
#include <opus/opus.h>
#include <portaudio.h>

#include "tests/torture/torture_table.h"

namespace {

constexpr useconds_t LONG_SLEEP = 5000000;
constexpr useconds_t SHORTENED_SLEEP = 300000;

template <class Function>
Function* next(Function* /*ours*/, const char* name) {
    return reinterpret_cast<Function*>(nextFunction(name));
}

PaStreamCallback* serve = nullptr;

int serveMarked(const void* input, void* output, unsigned long frames,
                const PaStreamCallbackTimeInfo* times, PaStreamCallbackFlags flags,
                void* userData) {
    const ServingSound mark;
    return serve(input, output, frames, times, flags, userData);
}

/// Puts a callback that marks its calls in the place of the server's.
PaStreamCallback* marked(PaStreamCallback* callback) {
    serve = callback;
    return &serveMarked;
}

}  // namespace

// The function named, or its failure: `failure` is a statement list that returns.
#define TORTURE(function, arguments, failure)                      \
    {                                                              \
        if (tortureCall(#function, __builtin_return_address(0))) { \
            failure;                                               \
        }                                                          \
        static auto* const real = next(&::function, #function);    \
        return real arguments;                                     \
    }

#define FAIL_WITH(error) \
    errno = (error);     \
    return -1

extern "C" {

int socket(int domain, int type, int protocol) noexcept
    TORTURE(socket, (domain, type, protocol), FAIL_WITH(EMFILE))

        int bind(int socket, const sockaddr* address, socklen_t length) noexcept
    TORTURE(bind, (socket, address, length), FAIL_WITH(EADDRNOTAVAIL))

        int setsockopt(int socket, int level, int name, const void* value,
                       socklen_t length) noexcept
    TORTURE(setsockopt, (socket, level, name, value, length), FAIL_WITH(ENOBUFS))

        int getsockname(int socket, sockaddr* address, socklen_t* length) noexcept
    TORTURE(getsockname, (socket, address, length), FAIL_WITH(ENOBUFS))

        ssize_t
    recvfrom(int socket, void* room, size_t size, int flags, sockaddr* sender, socklen_t* length)
        TORTURE(recvfrom, (socket, room, size, flags, sender, length), FAIL_WITH(ENOMEM))

            ssize_t sendto(int socket, const void* data, size_t size, int flags,
                           const sockaddr* receiver, socklen_t length)
                TORTURE(sendto, (socket, data, size, flags, receiver, length), FAIL_WITH(ENOBUFS))

                    ssize_t recvmsg(int socket, msghdr* message, int flags)
                        TORTURE(recvmsg, (socket, message, flags), FAIL_WITH(ENOMEM))

                            ssize_t
    sendmsg(int socket, const msghdr* message, int flags)
        TORTURE(sendmsg, (socket, message, flags), FAIL_WITH(ENOBUFS))

            int poll(pollfd* descriptors, nfds_t number, int timeout)
                TORTURE(poll, (descriptors, number, timeout), FAIL_WITH(ENOMEM))

                    ssize_t read(int descriptor, void* room, size_t size)
                        TORTURE(read, (descriptor, room, size), FAIL_WITH(EIO))

                            ssize_t write(int descriptor, const void* data, size_t size)
                                TORTURE(write, (descriptor, data, size), FAIL_WITH(EIO))

                                    int dup(int descriptor) noexcept
    TORTURE(dup, (descriptor), FAIL_WITH(EMFILE))

        int dup2(int from, int to) noexcept TORTURE(dup2, (from, to), FAIL_WITH(EMFILE))

            int pipe2(int* ends, int flags) noexcept
    TORTURE(pipe2, (ends, flags), FAIL_WITH(EMFILE))

        int getifaddrs(ifaddrs** list) noexcept TORTURE(getifaddrs, (list), FAIL_WITH(ENOMEM))

            int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                            addrinfo** result)
                TORTURE(getaddrinfo, (node, service, hints, result), return EAI_AGAIN)

                    int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                       void* (*body)(void*), void* argument) noexcept
    TORTURE(pthread_create, (thread, attributes, body, argument), return EAGAIN)

        int open(const char* path, int flags, ...) {
    if (tortureCall("open", __builtin_return_address(0))) {
        FAIL_WITH(EMFILE);
    }
    std::va_list values;
    va_start(values, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(values, mode_t) : 0;
    va_end(values);
    static auto* const real = next(&::open, "open");
    return real(path, flags, mode);
}

int fcntl(int descriptor, int command, ...) {
    if (tortureCall("fcntl", __builtin_return_address(0))) {
        FAIL_WITH(EMFILE);
    }
    std::va_list values;
    va_start(values, command);
    void* const value = va_arg(values, void*);
    va_end(values);
    static auto* const real = next(&::fcntl, "fcntl");
    return real(descriptor, command, value);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
    if (tortureCall("ioctl", __builtin_return_address(0))) {
        FAIL_WITH(ENOMEM);
    }
    std::va_list values;
    va_start(values, request);
    void* const value = va_arg(values, void*);
    va_end(values);
    static auto* const real =
        reinterpret_cast<int (*)(int, unsigned long, ...)>(nextFunction("ioctl"));
    return real(descriptor, request, value);
}

/// A room that is too small.
const char* inet_ntop(int family, const void* address, char* text, socklen_t room) noexcept {
    if (tortureCall("inet_ntop", __builtin_return_address(0))) {
        errno = ENOSPC;
        return nullptr;
    }
    static auto* const real = next(&::inet_ntop, "inet_ntop");
    return real(family, address, text, room);
}

/// A signal comes before the wait is over.
int sem_wait(sem_t* semaphore) {
    if (tortureCall("sem_wait", __builtin_return_address(0))) {
        FAIL_WITH(EINTR);
    }
    static auto* const real = next(&::sem_wait, "sem_wait");
    return real(semaphore);
}

/// A signal comes at once. Shortens the wait before the version check, too.
int usleep(useconds_t microseconds) {
    if (tortureCall("usleep", __builtin_return_address(0))) {
        FAIL_WITH(EINTR);
    }
    static auto* const real = next(&::usleep, "usleep");
    return real(microseconds >= LONG_SLEEP ? SHORTENED_SLEEP : microseconds);
}

PaError Pa_Initialize() TORTURE(Pa_Initialize, (), return paInternalError)

    PaDeviceIndex Pa_GetDefaultInputDevice()
        TORTURE(Pa_GetDefaultInputDevice, (), return paNoDevice)

            const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex device)
                TORTURE(Pa_GetDeviceInfo, (device), return nullptr)

                    PaError
    Pa_OpenStream(PaStream** stream, const PaStreamParameters* input,
                  const PaStreamParameters* output, double rate, unsigned long frames,
                  PaStreamFlags flags, PaStreamCallback* callback, void* userData)
        TORTURE(Pa_OpenStream,
                (stream, input, output, rate, frames, flags, marked(callback), userData),
                return paDeviceUnavailable)

            PaError Pa_StartStream(PaStream* stream)
                TORTURE(Pa_StartStream, (stream), return paUnanticipatedHostError)

                    const PaStreamInfo* Pa_GetStreamInfo(PaStream* stream)
                        TORTURE(Pa_GetStreamInfo, (stream), return nullptr)

    /// Fails as a library does that closes all the same. There may be no stream to close.
    PaError Pa_CloseStream(PaStream* stream) {
    const bool fails = tortureCall("Pa_CloseStream", __builtin_return_address(0));
    static auto* const real = next(&::Pa_CloseStream, "Pa_CloseStream");
    const PaError result = stream == nullptr ? static_cast<PaError>(paBadStreamPtr) : real(stream);
    return fails ? static_cast<PaError>(paInternalError) : result;
}

PaError Pa_Terminate() TORTURE(Pa_Terminate, (), return paNotInitialized)

    int enet_initialize_with_callbacks(ENetVersion version, const ENetCallbacks* callbacks)
        TORTURE(enet_initialize_with_callbacks, (version, callbacks), return -1)

            int enet_address_set_host(ENetAddress* address,
                                      const char* name) TORTURE(enet_address_set_host,
                                                                (address, name), return -1)

                ENetHost* enet_host_create(const ENetAddress* address, size_t peers,
                                           size_t channels, enet_uint32 incoming,
                                           enet_uint32 outgoing)
                    TORTURE(enet_host_create, (address, peers, channels, incoming, outgoing),
                            errno = ENOMEM;
                            return nullptr)

                        ENetPacket* enet_packet_create(const void* data, size_t length,
                                                       enet_uint32 flags)
                            TORTURE(enet_packet_create, (data, length, flags), return nullptr)

                                int enet_peer_send(ENetPeer* peer, enet_uint8 channel,
                                                   ENetPacket* packet)
                                    TORTURE(enet_peer_send, (peer, channel, packet), return -1)

                                        int enet_host_service(ENetHost* host, ENetEvent* event,
                                                              enet_uint32 timeout)
                                            TORTURE(enet_host_service, (host, event, timeout),
                                                    return -1)

                                                OpusEncoder* opus_encoder_create(opus_int32 rate,
                                                                                 int channels,
                                                                                 int application,
                                                                                 int* error)
                                                    TORTURE(opus_encoder_create,
                                                            (rate, channels, application, error),
                                                            *error = OPUS_ALLOC_FAIL;
                                                            return nullptr)

                                                        opus_int32
    opus_encode(OpusEncoder* encoder, const opus_int16* samples, int frames, unsigned char* data,
                opus_int32 room)
        TORTURE(opus_encode, (encoder, samples, frames, data, room), return OPUS_INTERNAL_ERROR)

            int opus_encoder_ctl(OpusEncoder* encoder, int request, ...) {
    if (tortureCall("opus_encoder_ctl", __builtin_return_address(0))) {
        return OPUS_UNIMPLEMENTED;
    }
    std::va_list values;
    va_start(values, request);
    const int value = va_arg(values, int);
    va_end(values);
    static auto* const real = next(&::opus_encoder_ctl, "opus_encoder_ctl");
    return real(encoder, request, value);
}

void* dlopen(const char* path, int mode) noexcept {
    if (tortureCall("dlopen", __builtin_return_address(0))) {
        return nullptr;
    }
    static auto* const real = next(&::dlopen, "dlopen");
    return real(path, mode);
}
}

// libcurl's functions are handed out by dlsym.
namespace {

decltype(&::curl_global_init) realGlobalInit;
decltype(&::curl_easy_init) realEasyInit;
decltype(&::curl_easy_perform) realEasyPerform;
CURLcode (*realEasySetopt)(CURL*, unsigned, void*);

CURLcode globalInit(long flags) {
    return tortureCall("curl_global_init", __builtin_return_address(0)) ? CURLE_FAILED_INIT
                                                                        : realGlobalInit(flags);
}

CURL* easyInit() {
    return tortureCall("curl_easy_init", __builtin_return_address(0)) ? nullptr : realEasyInit();
}

CURLcode easySetopt(CURL* handle, unsigned option, void* value) {
    return tortureCall("curl_easy_setopt", __builtin_return_address(0))
               ? CURLE_OUT_OF_MEMORY
               : realEasySetopt(handle, option, value);
}

CURLcode easyPerform(CURL* handle) {
    return tortureCall("curl_easy_perform", __builtin_return_address(0)) ? CURLE_COULDNT_CONNECT
                                                                         : realEasyPerform(handle);
}

/// What dlsym(RTLD_NEXT, name) means for the paced capture, which comes after us and replaces
/// functions of the C library and of the codec; asked as it asks, dlsym would take us for the
/// caller.
void* afterCapture(const char* name) {
    static const auto open = next(&::dlopen, "dlopen");
    static void* const libraries[] = {open("libc.so.6", RTLD_LAZY | RTLD_NOLOAD),
                                      open("libopus.so.0", RTLD_LAZY | RTLD_NOLOAD)};
    for (void* const library : libraries) {
        if (void* const found = realDlsym()(library, name)) {
            return found;
        }
    }
    return nullptr;
}

/// Puts `ours` in the place of `found` when `name` is the one meant.
template <class Real, class Ours>
void* replace(const char* name, const char* meant, void* found, Real& real, Ours* ours) {
    if (found == nullptr || __builtin_strcmp(name, meant) != 0) {
        return found;
    }
    real = reinterpret_cast<Real>(found);
    return reinterpret_cast<void*>(ours);
}

}  // namespace

extern "C" void* dlsym(void* library, const char* name) noexcept {
    if (tortureCall("dlsym", __builtin_return_address(0))) {
        return nullptr;
    }
    void* found = library == RTLD_NEXT ? afterCapture(name) : realDlsym()(library, name);
    found = replace(name, "curl_global_init", found, realGlobalInit, &globalInit);
    found = replace(name, "curl_easy_init", found, realEasyInit, &easyInit);
    found = replace(name, "curl_easy_setopt", found, realEasySetopt, &easySetopt);
    return replace(name, "curl_easy_perform", found, realEasyPerform, &easyPerform);
}
