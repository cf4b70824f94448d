// Calls of the system and of the sound, network, codec and web libraries that fail. Which others
// the programs make, and why they are not replaced, is in torture_imports.py.

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

// A function that fails or is the next one of its name; `failure` is a statement list that returns.
#define TORTURE(result, function, parameters, arguments, failure)  \
    result function parameters {                                   \
        if (tortureCall(#function, __builtin_return_address(0))) { \
            failure;                                               \
        }                                                          \
        static auto* const real = next(&::function, #function);    \
        return real arguments;                                     \
    }                                                              \
    static_assert(true)

#define FAIL_WITH(error) \
    errno = (error);     \
    return -1

extern "C" {
TORTURE(int, socket, (int domain, int type, int protocol) noexcept, (domain, type, protocol),
        FAIL_WITH(EMFILE));
TORTURE(int, bind, (int socket, const sockaddr* address, socklen_t length) noexcept,
        (socket, address, length), FAIL_WITH(EADDRNOTAVAIL));
TORTURE(int, setsockopt,
        (int socket, int level, int name, const void* value, socklen_t length) noexcept,
        (socket, level, name, value, length), FAIL_WITH(ENOBUFS));
TORTURE(int, getsockname, (int socket, sockaddr* address, socklen_t* length) noexcept,
        (socket, address, length), FAIL_WITH(ENOBUFS));
TORTURE(ssize_t, recvfrom,
        (int socket, void* room, size_t size, int flags, sockaddr* sender, socklen_t* length),
        (socket, room, size, flags, sender, length), FAIL_WITH(ENOMEM));
TORTURE(ssize_t, sendto,
        (int socket, const void* data, size_t size, int flags, const sockaddr* receiver,
         socklen_t length),
        (socket, data, size, flags, receiver, length), FAIL_WITH(ENOBUFS));
TORTURE(ssize_t, recvmsg, (int socket, msghdr* message, int flags), (socket, message, flags),
        FAIL_WITH(ENOMEM));
TORTURE(ssize_t, sendmsg, (int socket, const msghdr* message, int flags), (socket, message, flags),
        FAIL_WITH(ENOBUFS));
TORTURE(int, poll, (pollfd * descriptors, nfds_t number, int timeout),
        (descriptors, number, timeout), FAIL_WITH(ENOMEM));
TORTURE(ssize_t, read, (int descriptor, void* room, size_t size), (descriptor, room, size),
        FAIL_WITH(EIO));
TORTURE(ssize_t, write, (int descriptor, const void* data, size_t size), (descriptor, data, size),
        FAIL_WITH(EIO));
TORTURE(int, dup, (int descriptor) noexcept, (descriptor), FAIL_WITH(EMFILE));
TORTURE(int, dup2, (int from, int to) noexcept, (from, to), FAIL_WITH(EMFILE));
TORTURE(int, pipe2, (int* ends, int flags) noexcept, (ends, flags), FAIL_WITH(EMFILE));
TORTURE(int, getifaddrs, (ifaddrs * *list) noexcept, (list), FAIL_WITH(ENOMEM));
TORTURE(int, getaddrinfo,
        (const char* node, const char* service, const addrinfo* hints, addrinfo** result),
        (node, service, hints, result), return EAI_AGAIN);
TORTURE(int, pthread_create,
        (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*),
         void* argument) noexcept,
        (thread, attributes, body, argument), return EAGAIN);

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
TORTURE(const char*, inet_ntop,
        (int family, const void* address, char* text, socklen_t room) noexcept,
        (family, address, text, room), errno = ENOSPC;
        return nullptr);

/// A signal comes before the wait is over.
TORTURE(int, sem_wait, (sem_t * semaphore), (semaphore), FAIL_WITH(EINTR));

/// A signal comes at once. Shortens the wait before the version check, too.
int usleep(useconds_t microseconds) {
    if (tortureCall("usleep", __builtin_return_address(0))) {
        FAIL_WITH(EINTR);
    }
    static auto* const real = next(&::usleep, "usleep");
    return real(microseconds >= LONG_SLEEP ? SHORTENED_SLEEP : microseconds);
}
TORTURE(PaError, Pa_Initialize, (), (), return paInternalError);
TORTURE(PaDeviceIndex, Pa_GetDefaultInputDevice, (), (), return paNoDevice);
TORTURE(const PaDeviceInfo*, Pa_GetDeviceInfo, (PaDeviceIndex device), (device), return nullptr);
TORTURE(PaError, Pa_OpenStream,
        (PaStream * *stream, const PaStreamParameters* input, const PaStreamParameters* output,
         double rate, unsigned long frames, PaStreamFlags flags, PaStreamCallback* callback,
         void* userData),
        (stream, input, output, rate, frames, flags, marked(callback), userData),
        return paDeviceUnavailable);
TORTURE(PaError, Pa_StartStream, (PaStream * stream), (stream), return paUnanticipatedHostError);
TORTURE(const PaStreamInfo*, Pa_GetStreamInfo, (PaStream * stream), (stream), return nullptr);

/// Fails as a library does that closes all the same. There may be no stream to close.
PaError Pa_CloseStream(PaStream* stream) {
    const bool fails = tortureCall("Pa_CloseStream", __builtin_return_address(0));
    static auto* const real = next(&::Pa_CloseStream, "Pa_CloseStream");
    const PaError result = stream == nullptr ? static_cast<PaError>(paBadStreamPtr) : real(stream);
    return fails ? static_cast<PaError>(paInternalError) : result;
}
TORTURE(PaError, Pa_Terminate, (), (), return paNotInitialized);
TORTURE(int, enet_initialize_with_callbacks, (ENetVersion version, const ENetCallbacks* callbacks),
        (version, callbacks), return -1);
TORTURE(int, enet_address_set_host, (ENetAddress * address, const char* name), (address, name),
        return -1);
TORTURE(ENetHost*, enet_host_create,
        (const ENetAddress* address, size_t peers, size_t channels, enet_uint32 incoming,
         enet_uint32 outgoing),
        (address, peers, channels, incoming, outgoing), errno = ENOMEM;
        return nullptr);
TORTURE(ENetPacket*, enet_packet_create, (const void* data, size_t length, enet_uint32 flags),
        (data, length, flags), return nullptr);
TORTURE(int, enet_peer_send, (ENetPeer * peer, enet_uint8 channel, ENetPacket* packet),
        (peer, channel, packet), return -1);
TORTURE(int, enet_host_service, (ENetHost * host, ENetEvent* event, enet_uint32 timeout),
        (host, event, timeout), return -1);
TORTURE(OpusEncoder*, opus_encoder_create,
        (opus_int32 rate, int channels, int application, int* error),
        (rate, channels, application, error), *error = OPUS_ALLOC_FAIL;
        return nullptr);
TORTURE(opus_int32, opus_encode,
        (OpusEncoder * encoder, const opus_int16* samples, int frames, unsigned char* data,
         opus_int32 room),
        (encoder, samples, frames, data, room), return OPUS_INTERNAL_ERROR);

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

TORTURE(void*, dlopen, (const char* path, int mode) noexcept, (path, mode), return nullptr);
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
