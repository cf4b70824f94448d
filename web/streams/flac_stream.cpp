#include "web/streams/flac_stream.h"

namespace vxweb {

namespace {

/// First byte of a FLAC frame, but of no metadata block.
constexpr unsigned char SYNC = 0xFF;

}  // namespace

FlacStream::~FlacStream() = default;

// libFLAC passes each metadata block and each frame in one call.
sf_count_t FlacStream::collect(const void* source, sf_count_t count, void* self) {
    auto* const stream = static_cast<FlacStream*>(self);
    const auto* const bytes = static_cast<const char*>(source);
    const auto length = static_cast<std::size_t>(count);
    stream->length_ += count;
    if (count > 0 && static_cast<unsigned char>(bytes[0]) != SYNC) {
        stream->header_.append(bytes, length);
    } else if (stream->target_ != nullptr) {
        stream->target_->append(bytes, length);
    }
    return count;
}

sf_count_t FlacStream::tell(void* self) {
    return static_cast<FlacStream*>(self)->length_;
}

sf_count_t FlacStream::seek(sf_count_t /*offset*/, int /*whence*/, void* self) {
    return tell(self);
}

void FlacStream::start(int rate) {
    SF_VIRTUAL_IO calls = {};
    calls.get_filelen = tell;
    calls.seek = seek;
    calls.write = collect;
    calls.tell = tell;
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = static_cast<int>(CHANNELS);
    info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
    file_.reset(sf_open_virtual(&calls, SFM_WRITE, &info, this));
    if (file_ != nullptr) {
        sf_set_string(file_.get(), SF_STR_TITLE, title_.c_str());
    }
}

void FlacStream::write(const std::int16_t* frames, std::size_t count, std::string& bytes) {
    if (file_ != nullptr) {
        target_ = &bytes;
        sf_writef_short(file_.get(), frames, static_cast<sf_count_t>(count));
        target_ = nullptr;
    }
}

}  // namespace vxweb
