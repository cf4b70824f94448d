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

/// Bytes of a stream, shared and never copied.
using Chunk = std::shared_ptr<const std::string>;
using Emit = std::function<void(Chunk)>;

/// One endless media stream, made once for all its listeners. Its sound keeps pace with time:
/// silence replaces what is missing, and sound that arrives after its time was filled is dropped.
/// Times are microseconds of one steady clock. Not thread-safe.
///
/// Each chunk contains whole frames or pages, so a listener may begin with any of them. A listener
/// gets header() right before its first chunk; header() is valid for that chunk when the chunk is
/// emitted, not before.
class MediaStream {
  public:
    MediaStream() = default;
    virtual ~MediaStream() = default;
    MediaStream(const MediaStream&) = delete;
    MediaStream& operator=(const MediaStream&) = delete;

    /// What each listener gets before its first chunk. Empty for MP3, and before the first chunk.
    [[nodiscard]] virtual std::string header() const = 0;

    /// Takes a packet with its `step` that arrived at `nowUs`. Emits at most one chunk.
    virtual void take(const vxlisten::AudioPacket& packet, const vxlisten::SequenceStep& step,
                      std::int64_t nowUs, const Emit& emit) = 0;

    /// How many packets the next chunk needs, at most.
    [[nodiscard]] virtual std::size_t packetsToChunk() const { return 1; }

    /// To be called every 20 to 40 ms, with or without sound: fills what is missing with silence.
    /// Emits at most one chunk.
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
