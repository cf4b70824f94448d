#include "bench/call_timers.h"

#include <ctime>
#include <dlfcn.h>
#include <poll.h>

#include <enet/enet.h>
#include <opus/opus.h>

CallTimes callTimes;

std::int64_t nowNs() {
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

namespace {

/// Adds the time of its lifetime to a sum.
class Stopwatch {
  public:
    explicit Stopwatch(std::int64_t& sum) : total(sum), start(nowNs()) {}
    ~Stopwatch() { total += nowNs() - start; }
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;

  private:
    std::int64_t& total;
    std::int64_t start;
};

template <class Function>
Function* theirs(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

opus_int32 opus_encode(OpusEncoder* encoder, const opus_int16* pcm, int frameSize,
                       unsigned char* data, opus_int32 maxBytes) {
    static auto* const real = theirs<decltype(opus_encode)>("opus_encode");
    const Stopwatch watch(callTimes.opus);
    return real(encoder, pcm, frameSize, data, maxBytes);
}

ENetPacket* enet_packet_create(const void* data, std::size_t length, enet_uint32 flags) {
    static auto* const real = theirs<decltype(enet_packet_create)>("enet_packet_create");
    const Stopwatch watch(callTimes.enet);
    return real(data, length, flags);
}

int enet_peer_send(ENetPeer* peer, enet_uint8 channel, ENetPacket* packet) {
    static auto* const real = theirs<decltype(enet_peer_send)>("enet_peer_send");
    const Stopwatch watch(callTimes.enet);
    return real(peer, channel, packet);
}

void enet_host_flush(ENetHost* host) {
    static auto* const real = theirs<decltype(enet_host_flush)>("enet_host_flush");
    const Stopwatch watch(callTimes.enet);
    real(host);
}

int enet_host_service(ENetHost* host, ENetEvent* event, enet_uint32 timeout) {
    static auto* const real = theirs<decltype(enet_host_service)>("enet_host_service");
    const Stopwatch watch(callTimes.enet);
    return real(host, event, timeout);
}

int poll(pollfd* descriptors, nfds_t count, int timeout) {
    static auto* const real = theirs<decltype(poll)>("poll");
    const Stopwatch watch(callTimes.wait);
    return real(descriptors, count, timeout);
}
}
