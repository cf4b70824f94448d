#include "web/streams/ogg_stream.h"

#include <array>
#include <memory>
#include <random>
#include <utility>

#include <opus/opus.h>

#include "stream/wire_format.h"

namespace vxweb {

namespace {

constexpr int RATE = 48000;
constexpr std::size_t PACKET_FRAMES = wire::OPUS_FRAME_SAMPLES;
constexpr std::size_t PAGE_PACKETS = 10;
/// Delay of libopus's encoder, in frames at 48 kHz.
constexpr std::uint32_t PRE_SKIP = 312;
/// Maximum packets in a row that players conceal.
constexpr std::size_t MAX_CONCEALED = 6;
/// 10 ms of stereo silence, full band.
constexpr std::array<unsigned char, 3> SILENCE = {0xF4, 0xFF, 0xFE};
constexpr unsigned char TOC_MASK = 0xFC;  ///< Mode, bandwidth, length and channels.

std::string littleEndian(std::uint32_t value) {
    unsigned char bytes[sizeof value];
    wire::writeU32(bytes, value);
    return {bytes, bytes + sizeof value};
}

/// The identification header: version 1, two channels, no gain, mapping family 0.
std::string identification() {
    return "OpusHead" + littleEndian(1 | 2U << 8 | PRE_SKIP << 16) + littleEndian(RATE) +
           std::string(3, '\0');
}

std::string comments(const std::string& title) {
    const std::string vendor = "velantrix-web";
    const std::string tag = "TITLE=" + title;
    return "OpusTags" + littleEndian(static_cast<std::uint32_t>(vendor.size())) + vendor +
           littleEndian(1) + littleEndian(static_cast<std::uint32_t>(tag.size())) + tag;
}

bool isServerPacket(const vxlisten::AudioPacket& packet) {
    return packet.encoding == vxlisten::Encoding::Opus && packet.sampleRate == RATE;
}

/// True for one whole packet of 10 ms.
bool isSound(const vxlisten::AudioPacket& packet) {
    const auto length = static_cast<opus_int32>(packet.payloadLength);
    opus_int16 sizes[48];
    return opus_packet_parse(packet.payload, length, nullptr, nullptr, sizes, nullptr) > 0 &&
           opus_packet_get_nb_samples(packet.payload, length, RATE) ==
               static_cast<int>(PACKET_FRAMES);
}

}  // namespace

OggStream::OggStream(int rate, const std::string& title)
    : clock_(RATE, PACKET_FRAMES), transcoder_(rate) {
    ogg_stream_init(&ogg_, static_cast<int>(std::random_device{}()));
    for (std::string text : {identification(), comments(title)}) {
        ogg_packet packet = {};
        packet.packet = reinterpret_cast<unsigned char*>(text.data());
        packet.bytes = static_cast<long>(text.size());
        packet.b_o_s = header_.empty() ? 1 : 0;
        packet.packetno = header_.empty() ? 0 : 1;
        ogg_stream_packetin(&ogg_, &packet);
        header_ += takePages(true);
    }
}

OggStream::~OggStream() {
    ogg_stream_clear(&ogg_);
}

std::string OggStream::takePages(bool all) {
    std::string bytes;
    ogg_page page = {};
    while ((all ? ogg_stream_flush(&ogg_, &page) : ogg_stream_pageout(&ogg_, &page)) != 0) {
        bytes.append(reinterpret_cast<const char*>(page.header),
                     static_cast<std::size_t>(page.header_len));
        bytes.append(reinterpret_cast<const char*>(page.body),
                     static_cast<std::size_t>(page.body_len));
    }
    return bytes;
}

void OggStream::put(const unsigned char* bytes, std::size_t length) {
    ++packets_;
    ogg_packet packet = {};
    packet.packet = const_cast<unsigned char*>(bytes);  // libogg copies it.
    packet.bytes = static_cast<long>(length);
    packet.granulepos = packets_ * static_cast<std::int64_t>(PACKET_FRAMES);
    packet.packetno = packets_ + 1;
    ogg_stream_packetin(&ogg_, &packet);
    if (++pagePackets_ == PAGE_PACKETS) {
        pagePackets_ = 0;
        bytes_ += takePages(true);
    }
}

void OggStream::putSilence(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        put(SILENCE.data(), SILENCE.size());
        emptyRun_ = MAX_CONCEALED;
    }
}

void OggStream::putMissing(std::size_t count) {
    for (; count > 0 && emptyRun_ < MAX_CONCEALED && packets_ > 0; --count, ++emptyRun_) {
        put(&emptyPacket_, 1);
    }
    putSilence(count);
}

void OggStream::putSound(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step) {
    if (isServerPacket(packet)) {
        transcoder_.restart();
        if (!isSound(packet)) {
            putMissing(1);
            clock_.wrote(PACKET_FRAMES);
            return;
        }
        put(packet.payload, packet.payloadLength);
        clock_.wrote(PACKET_FRAMES);
        emptyPacket_ = packet.payload[0] & TOC_MASK;
        emptyRun_ = 0;
        return;
    }
    const bool taken = transcoder_.take(packet, step, [this](const auto* bytes, auto length) {
        put(bytes, length);
        clock_.wrote(PACKET_FRAMES);
        emptyPacket_ = bytes[0] & TOC_MASK;
        emptyRun_ = 0;
    });
    if (!taken) {
        putMissing(1);
        clock_.wrote(PACKET_FRAMES);
    }
}

void OggStream::take(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
                     std::int64_t nowUs, const Emit& emit) {
    if (packet.frames > 0) {
        const auto arrival = clock_.arrive(nowUs, packet.frames, packet.sampleRate, step);
        putMissing(arrival.silence / PACKET_FRAMES);
        if (!arrival.late) {
            putSound(packet, step);
        }
    }
    deliver(emit);
}

std::size_t OggStream::packetsToChunk() const {
    return PAGE_PACKETS - pagePackets_;
}

void OggStream::pass(std::int64_t nowUs, const Emit& emit) {
    putSilence(clock_.pass(nowUs) / PACKET_FRAMES);
    deliver(emit);
}

void OggStream::deliver(const Emit& emit) {
    if (!bytes_.empty()) {
        emit(std::make_shared<const std::string>(std::exchange(bytes_, {})));
    }
}

}  // namespace vxweb
