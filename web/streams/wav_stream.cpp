#include "web/streams/wav_stream.h"

#include "stream/wire_format.h"

namespace vxweb {

namespace {

constexpr std::uint32_t UNKNOWN_SIZE = 0xFFFFFFFF;
constexpr std::uint32_t FORMAT_LENGTH = 16;
constexpr std::uint32_t PCM_AND_CHANNELS = 1 | 2U << 16;
constexpr std::uint32_t BLOCK_AND_BITS = wire::BYTES_PER_FRAME | 16U << 16;

std::string littleEndian(std::uint32_t value) {
    unsigned char bytes[sizeof value];
    wire::writeU32(bytes, value);
    return {bytes, bytes + sizeof value};
}

}  // namespace

void WavStream::start(int rate) {
    const auto frames = static_cast<std::uint32_t>(rate);
    header_ = "RIFF" + littleEndian(UNKNOWN_SIZE) + "WAVEfmt " + littleEndian(FORMAT_LENGTH) +
              littleEndian(PCM_AND_CHANNELS) + littleEndian(frames) +
              littleEndian(frames * wire::BYTES_PER_FRAME) + littleEndian(BLOCK_AND_BITS) + "data" +
              littleEndian(UNKNOWN_SIZE);
}

void WavStream::write(const std::int16_t* frames, std::size_t count, std::string& bytes) {
    std::size_t at = bytes.size();
    bytes.resize(at + count * wire::BYTES_PER_FRAME);
    for (std::size_t i = 0; i < count * CHANNELS; ++i) {
        const auto sample = static_cast<std::uint16_t>(frames[i]);
        bytes[at++] = static_cast<char>(sample & 0xFF);
        bytes[at++] = static_cast<char>(sample >> 8);
    }
}

}  // namespace vxweb
