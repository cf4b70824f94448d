#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "listen/network/audio_packet.h"
#include "listen/network/sequence_tracker.h"

namespace vxweb {

enum class StreamFormat { Wav, Flac, Mp3, Ogg };

/// Bytes of a stream. Shared by all who send them; nobody copies them.
using Chunk = std::shared_ptr<const std::string>;
using Emit = std::function<void(Chunk)>;

/// One endless media stream, made once for all who hear it. Its sound keeps pace with time: silence
/// stands for what is missing, and sound that comes after its time was filled is left out. Time
/// is given in microseconds of one steady clock. Not thread-safe.
///
/// Each chunk holds whole frames or pages, so that a listener may begin with any of them. A
/// listener gets header() right before the first chunk; what holds for a listener's first chunk is
/// known when it is emitted, and not before.
class MediaStream {
  public:
    MediaStream() = default;
    virtual ~MediaStream() = default;
    MediaStream(const MediaStream&) = delete;
    MediaStream& operator=(const MediaStream&) = delete;

    /// What each listener gets before its first chunk. Empty for MP3, and before the first chunk.
    [[nodiscard]] virtual std::string header() const = 0;

    /// Takes a packet that `step` judged and that arrived at `nowUs`. Emits at most one chunk.
    virtual void take(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
                      std::int64_t nowUs, const Emit& emit) = 0;

    /// How many packets it takes until the next chunk is whole; no more than that many.
    [[nodiscard]] virtual std::size_t packetsToChunk() const { return 1; }

    /// To be called about every 20 ms, whether sound arrives or not: fills what is missing with
    /// silence. Emits at most one chunk.
    virtual void pass(std::int64_t nowUs, const Emit& emit) = 0;
};

/// The media type for HTTP. Pure.
const char* contentType(StreamFormat format);

/// A stream of `format`. `rate` in kbit/s: for Ogg 20, 64, 128 or 256, that of the packets it will
/// take; for Mp3 64, 128, 192 or 256; ignored otherwise. `title` goes into the header. Without
/// memory for an encoder nothing is emitted.
std::unique_ptr<MediaStream> makeMediaStream(StreamFormat format, int rate,
                                             const std::string& title);

}  // namespace vxweb
