#include "listen/sinks/recorder.h"

#include <algorithm>
#include <cassert>
#include <cctype>
#include <limits>
#include <system_error>
#include <vector>

#include "stream/wire_format.h"

namespace vxlisten {

namespace {

constexpr int CHANNELS = 2;
constexpr int OPUS_FILE_RATE = 48000;
/// libsndfile's Vorbis encoder keeps a whole write on its stack.
constexpr std::size_t PIECE_FRAMES = 2048;
constexpr std::uint64_t WAV_HEADER_ROOM = 4096;

struct Ending {
    const char* text;
    int format;
};

constexpr Ending ENDINGS[] = {
    {".wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16},
    {".flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
    {".ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
    {".opus", SF_FORMAT_OGG | SF_FORMAT_OPUS},
};

constexpr int OPUS_FORMAT = SF_FORMAT_OGG | SF_FORMAT_OPUS;

SF_INFO describe(int format, int rate) {
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = CHANNELS;
    info.format = format;
    return info;
}

/// The system's text for an error number.
std::string reasonOf(int number) {
    return std::generic_category().message(number);
}

bool hasEnding(const std::string& path, const std::string& ending) {
    return path.size() >= ending.size() &&
           std::equal(ending.rbegin(), ending.rend(), path.rbegin(), [](char a, char b) {
               return a == std::tolower(static_cast<unsigned char>(b));
           });
}

/// libsndfile's format for a path, 0 when there is none.
int formatOf(const std::string& path) {
    for (const Ending& ending : ENDINGS) {
        if (hasEnding(path, ending.text)) {
            const SF_INFO info = describe(ending.format, OPUS_FILE_RATE);
            return sf_format_check(&info) != 0 ? ending.format : 0;
        }
    }
    return 0;
}

}  // namespace

Recorder::~Recorder() {
    Recorder::finish();
}

bool Recorder::knowsEnding(const std::string& path) {
    return formatOf(path) != 0;
}

bool Recorder::open(const std::string& path) {
    path_ = path;
    format_ = formatOf(path);
    assert(format_ != 0);
    if (!file_.open(path)) {
        refuse(reasonOf(file_.errorNumber()));
        return false;
    }
    return true;
}

SinkState Recorder::refuse(const std::string& reason) {
    return fail("cannot record to '" + path_ + "': " + reason);
}

SinkState Recorder::state() const {
    return error().empty() ? SinkState::Open : SinkState::Failed;
}

bool Recorder::startFile(int rate) {
    adapter_ = std::make_unique<RateAdapter>(format_ == OPUS_FORMAT ? OPUS_FILE_RATE : rate);
    file_.clear();
    SF_INFO info = describe(format_, adapter_->rate());
    sound_ = file_.openSound(info);
    if (sound_ == nullptr || file_.errorNumber() != 0) {
        refuse(file_.errorNumber() != 0 ? reasonOf(file_.errorNumber()) : sf_strerror(nullptr));
        return false;
    }
    return true;
}

bool Recorder::wouldOutgrowFormat(std::size_t frames) const {
    const std::uint64_t bytes = (framesWritten_ + frames) * wire::BYTES_PER_FRAME;
    return (format_ & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAV &&
           bytes + WAV_HEADER_ROOM > std::numeric_limits<std::uint32_t>::max();
}

void Recorder::refreshHeader(std::size_t frames) {
    framesSinceHeader_ += frames;
    const bool due = framesSinceHeader_ >= static_cast<std::size_t>(adapter_->rate());
    if (due && (format_ & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAV) {
        sf_command(sound_, SFC_UPDATE_HEADER_NOW, nullptr, 0);
        framesSinceHeader_ = 0;
    }
}

SinkState Recorder::write(const std::int16_t* frames, std::size_t count, int rate) {
    assert(!finished_);
    if (!error().empty() || (sound_ == nullptr && !startFile(rate))) {
        return SinkState::Failed;
    }
    const auto& converted = adapter_->convert(frames, count, rate);
    const std::size_t total = converted.size() / CHANNELS;
    if (wouldOutgrowFormat(total)) {
        return refuse("a WAV file cannot hold more than 4 GB, record to .flac instead");
    }
    for (std::size_t done = 0; done < total; done += PIECE_FRAMES) {
        const auto piece = static_cast<sf_count_t>(std::min(PIECE_FRAMES, total - done));
        const bool whole =
            sf_writef_short(sound_, converted.data() + done * CHANNELS, piece) == piece;
        if (file_.errorNumber() != 0) {
            return refuse(reasonOf(file_.errorNumber()));
        }
        if (!whole) {
            return refuse(sf_strerror(sound_));
        }
    }
    framesWritten_ += total;
    refreshHeader(total);
    return SinkState::Open;
}

SinkState Recorder::finish() {
    if (finished_) {
        return state();
    }
    finished_ = true;
    if (sound_ == nullptr) {
        file_.abandon();
        return state();
    }
    const int result = sf_close(sound_);
    sound_ = nullptr;
    if (!file_.close()) {
        return refuse(reasonOf(file_.errorNumber()));
    }
    return result == 0 ? state() : refuse(sf_error_number(result));
}

}  // namespace vxlisten
