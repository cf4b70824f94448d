#include "stream/send_path.h"

#include <array>
#include <cassert>
#include <cstddef>

#include <enet/enet.h>
#include <opus/opus.h>

#include "app/base/core_pin.h"
#include "stream/capture_rate.h"
#include "stream/capture_thread.h"
#include "stream/client_table.h"
#include "stream/enet_clock.h"
#include "stream/opus_bank.h"
#include "stream/queue_trim.h"
#include "stream/service_step.h"
#include "stream/vanished_peer.h"
#include "stream/wire_format.h"

std::uint32_t seqNum = 0;
std::uint32_t seqNumComp = 0;

namespace {

constexpr enet_uint8 AUDIO_CHANNEL = 0;

/// The bytes for one client, borrowed, with room for the header.
struct Payload {
    unsigned char* data;
    std::size_t length;
};

/// The Opus packets of one block by rate code, each after room for the header.
struct EncodedBlock {
    std::array<std::array<unsigned char, wire::RAW_BUFFER_LENGTH>, OPUS_BANK_SIZE> area;
    std::array<int, OPUS_BANK_SIZE> length{};  ///< 0: not encoded; negative: the encoder failed.
};

/// Encodes the block once for each rate code in use.
void encodeInUse(const unsigned char* buffer, EncodedBlock& encoded) {
    std::array<bool, wire::RATE_CODE_COUNT> inUse{};
    for (const ClientSlot& slot : clientConn) {
        if (isStreaming(slot) && slot.rateCode != wire::RATE_CODE_RAW) {
            inUse[slot.rateCode & wire::RATE_CODE_MASK] = true;
        }
    }
    const auto* const samples = reinterpret_cast<const opus_int16*>(buffer + wire::HEADER_LENGTH);
    for (std::size_t code = 1; code < OPUS_BANK_SIZE; ++code) {
        if (inUse[code] && opusEnc[code] != nullptr) {
            const int bytes = opus_encode(opusEnc[code], samples, wire::OPUS_FRAME_SAMPLES,
                                          encoded.area[code].data() + wire::HEADER_LENGTH,
                                          static_cast<opus_int32>(wire::MAX_OPUS_BYTES));
            encoded.length[code] =
                bytes > 0 ? bytes + static_cast<int>(wire::HEADER_LENGTH) : bytes;
        }
    }
}

/// What all packets of one pass have in common.
struct Pass {
    std::uint32_t seq;
    bool altRate;
};

void sendPayload(const ClientSlot& slot, const Pass& pass, const Payload& payload) {
    wire::PacketHeader header;
    header.seq = pass.seq;
    header.flags = wire::makeFlags(slot.reliable != 0, pass.altRate, slot.rateCode);
    wire::writeHeader(payload.data, header);
    if (pass.seq % QUEUE_CHECK_INTERVAL == 0) {
        trimOutgoingQueue(slot, pass.seq);
    }
    if (slot.reliable == 0 && seemsVanished(*slot.peer)) {
        pingVanished(*slot.peer);
        return;
    }
    ENetPacket* const packet = enet_packet_create(
        payload.data, payload.length,
        slot.reliable != 0 ? ENET_PACKET_FLAG_RELIABLE : ENET_PACKET_FLAG_UNRELIABLE_FRAGMENT);
    if (packet == nullptr) {
        return;
    }
    // ENet then owns the packet, unless it refuses it.
    if (enet_peer_send(slot.peer, AUDIO_CHANNEL, packet) < 0 && packet->referenceCount == 0) {
        enet_packet_destroy(packet);
    }
    enet_host_flush(server);
}

void sendRaw(const Payload& raw) {
    const Pass pass{seqNum++, getVxOptionAltRate()};
    for (const ClientSlot& slot : clientConn) {
        if (isStreaming(slot) && slot.rateCode == wire::RATE_CODE_RAW) {
            sendPayload(slot, pass, raw);
        }
    }
}

void sendCompressed(const Payload& raw) {
    EncodedBlock encoded;
    encodeInUse(raw.data, encoded);
    const Pass pass{seqNumComp++, getVxOptionAltRate()};
    for (const ClientSlot& slot : clientConn) {
        if (!isStreaming(slot) || slot.rateCode == wire::RATE_CODE_RAW) {
            continue;
        }
        const bool haveOpus = slot.rateCode < OPUS_BANK_SIZE && encoded.length[slot.rateCode] > 0;
        const Payload payload =
            haveOpus ? Payload{encoded.area[slot.rateCode].data(),
                               static_cast<std::size_t>(encoded.length[slot.rateCode])}
                     : raw;
        sendPayload(slot, pass, payload);
    }
}

}  // namespace

int processBuffer(char* buffer, int length, bool hasInput) {
    assert(captureThread.here());
    steadyEnetClock();
    const Payload raw{reinterpret_cast<unsigned char*>(buffer), static_cast<std::size_t>(length)};
    if (length == static_cast<int>(wire::COMPRESSED_BUFFER_LENGTH)) {
        sendCompressed(raw);
    } else if (length >= static_cast<int>(wire::HEADER_LENGTH)) {
        sendRaw(raw);
        if (length > static_cast<int>(wire::HEADER_LENGTH) && hasInput) {
            reportToCore([](VelantrixServerNoGUI& core) { core.SetAudioCaptureActive(); });
        }
    }
    return serviceHost();
}

int twosCompShort(unsigned char high, unsigned char low) {
    return high * 256 + low;
}
