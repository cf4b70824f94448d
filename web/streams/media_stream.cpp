#include "web/streams/media_stream.h"

#include "web/streams/flac_stream.h"
#include "web/streams/mp3_stream.h"
#include "web/streams/ogg_stream.h"
#include "web/streams/wav_stream.h"

namespace vxweb {

const char* contentType(StreamFormat format) {
    switch (format) {
        case StreamFormat::Wav:
            return "audio/wav";
        case StreamFormat::Flac:
            return "audio/flac";
        case StreamFormat::Mp3:
            return "audio/mpeg";
        case StreamFormat::Ogg:
            return "audio/ogg";
    }
    return "";
}

std::unique_ptr<MediaStream> makeMediaStream(StreamFormat format, int rate,
                                             const std::string& title) {
    switch (format) {
        case StreamFormat::Wav:
            return std::make_unique<WavStream>();
        case StreamFormat::Flac:
            return std::make_unique<FlacStream>(title);
        case StreamFormat::Mp3:
            return std::make_unique<Mp3Stream>(rate);
        case StreamFormat::Ogg:
            return std::make_unique<OggStream>(rate, title);
    }
    return nullptr;
}

}  // namespace vxweb
