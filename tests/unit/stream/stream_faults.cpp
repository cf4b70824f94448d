#include <cerrno>

#include <enet/enet.h>
#include <opus/opus.h>

#include "tests/support/call_faults.h"

extern "C" {

int __real_enet_initialize_with_callbacks(ENetVersion, const ENetCallbacks*);
ENetHost* __real_enet_host_create(const ENetAddress*, size_t, size_t, enet_uint32, enet_uint32);
int __real_enet_host_service(ENetHost*, ENetEvent*, enet_uint32);
int __real_enet_host_check_events(ENetHost*, ENetEvent*);
ENetPacket* __real_enet_peer_receive(ENetPeer*, enet_uint8*);
void __real_enet_host_flush(ENetHost*);
ENetPacket* __real_enet_packet_create(const void*, size_t, enet_uint32);
void __real_enet_packet_destroy(ENetPacket*);
int __real_enet_peer_send(ENetPeer*, enet_uint8, ENetPacket*);
void __real_enet_peer_disconnect(ENetPeer*, enet_uint32);
OpusEncoder* __real_opus_encoder_create(opus_int32, int, int, int*);
opus_int32 __real_opus_encode(OpusEncoder*, const opus_int16*, int, unsigned char*, opus_int32);

int __wrap_enet_initialize_with_callbacks(ENetVersion version, const ENetCallbacks* callbacks) {
    const DivertedCall diverted;
    return noteCall(Call::EnetInitialize, "enet_initialize") != 0
               ? -1
               : __real_enet_initialize_with_callbacks(version, callbacks);
}

int __real_enet_socket_set_option(ENetSocket, ENetSocketOption, int);

int __wrap_enet_socket_set_option(ENetSocket socket, ENetSocketOption option, int value) {
    const int error = noteCall(Call::EnetSocketSetOption, "enet_socket_set_option");
    if (error != 0) {
        errno = error;
        return -1;
    }
    return __real_enet_socket_set_option(socket, option, value);
}

ENetHost* __wrap_enet_host_create(const ENetAddress* address, size_t peers, size_t channels,
                                  enet_uint32 incoming, enet_uint32 outgoing) {
    const DivertedCall diverted;
    const int error = noteCall(Call::EnetHostCreate, "enet_host_create");
    if (error != 0) {
        errno = error;
        return nullptr;
    }
    return __real_enet_host_create(address, peers, channels, incoming, outgoing);
}

int __wrap_enet_host_service(ENetHost* host, ENetEvent* event, enet_uint32 timeout) {
    const DivertedCall diverted;
    const int error =
        noteCall(Call::EnetHostService, "enet_host_service", {static_cast<int>(timeout)});
    return error != 0
               ? error
               : __real_enet_host_service(host, event, serviceWithoutWaiting() ? 0 : timeout);
}

int __wrap_enet_host_check_events(ENetHost* host, ENetEvent* event) {
    const DivertedCall diverted;
    return __real_enet_host_check_events(host, event);
}

ENetPacket* __wrap_enet_peer_receive(ENetPeer* peer, enet_uint8* channel) {
    const DivertedCall diverted;
    return __real_enet_peer_receive(peer, channel);
}

void __wrap_enet_host_flush(ENetHost* host) {
    const DivertedCall diverted;
    noteCall(Call::EnetHostFlush, "enet_host_flush");
    __real_enet_host_flush(host);
}

ENetPacket* __wrap_enet_packet_create(const void* data, size_t length, enet_uint32 flags) {
    const DivertedCall diverted;
    return noteCall(Call::EnetPacketCreate, "enet_packet_create") != 0
               ? nullptr
               : __real_enet_packet_create(data, length, flags);
}

void __wrap_enet_packet_destroy(ENetPacket* packet) {
    const DivertedCall diverted;
    noteCall(Call::EnetPacketDestroy, "enet_packet_destroy");
    __real_enet_packet_destroy(packet);
}

int __wrap_enet_peer_send(ENetPeer* peer, enet_uint8 channel, ENetPacket* packet) {
    const DivertedCall diverted;
    return noteCall(Call::EnetPeerSend, "enet_peer_send") != 0
               ? -1
               : __real_enet_peer_send(peer, channel, packet);
}

void __wrap_enet_peer_disconnect(ENetPeer* peer, enet_uint32 data) {
    const DivertedCall diverted;
    noteCall(Call::EnetPeerDisconnect, "enet_peer_disconnect");
    __real_enet_peer_disconnect(peer, data);
}

OpusEncoder* __wrap_opus_encoder_create(opus_int32 rate, int channels, int use, int* error) {
    const DivertedCall diverted;
    const int failure = noteCall(Call::OpusEncoderCreate, "opus_encoder_create");
    if (failure < 0) {
        *error = failure;
        return nullptr;
    }
    OpusEncoder* const encoder = __real_opus_encoder_create(rate, channels, use, error);
    if (failure > 0) {
        static OpusEncoder* suspect = nullptr;  // The library's matter, and no leak of the program.
        suspect = encoder;
        *error = -failure;
        return suspect;
    }
    return encoder;
}

opus_int32 __wrap_opus_encode(OpusEncoder* encoder, const opus_int16* samples, int frames,
                              unsigned char* output, opus_int32 room) {
    const DivertedCall diverted;
    const int error = noteCall(Call::OpusEncode, "opus_encode", {frames, room});
    if (error == RETURN_ZERO) {
        return 0;
    }
    return error != 0 ? error : __real_opus_encode(encoder, samples, frames, output, room);
}
}
