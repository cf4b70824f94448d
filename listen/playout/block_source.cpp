#include "listen/playout/block_source.h"

#include <algorithm>

#include "listen/audio/splicing.h"
#include "listen/network/audio_packet.h"

namespace vxlisten {

namespace {

constexpr std::size_t FADE_IN_FRAMES = 240;
constexpr unsigned LONGEST_RUN = 6;  ///< Lost Opus packets in a row until silence.
constexpr unsigned SHORT_RUN = 2;    ///< So many leave the decoder's sound whole.
/// Packets that are decoded before the end of a leap, so that the decoder finds its way.
constexpr std::size_t WARM_UP_PACKETS = 2;

double gainAfter(unsigned run) {
    return run >= LONGEST_RUN ? 0.0 : 1.0 - static_cast<double>(run) / LONGEST_RUN;
}

}  // namespace

JitterBuffer::Inserted BlockSource::insert(const StoredPacket& packet) {
    const JitterBuffer::Inserted inserted = buffer_.insert(packet);
    if (inserted == JitterBuffer::Inserted::NewStream) {
        // What was just playing must still fade out: the next block does so and then pauses.
        tailCount_ = 0;
        streamChanged_ = !pausing_;
        if (pausing_) {
            decoder_.reset();
        }
    }
    return inserted;
}

BlockSource::Block BlockSource::next() {
    if (pausing_) {
        return {};
    }
    if (streamChanged_ || buffer_.empty()) {
        return standIn(true);
    }
    const StoredPacket* const packet = buffer_.front();
    const Block block = packet != nullptr ? play(*packet) : standIn(false);
    buffer_.advance();
    return block;
}

BlockSource::Block BlockSource::play(const StoredPacket& packet) {
    const AudioPacket view = packet.view();
    const std::size_t count = decoder_.decode(view, block_.data());
    if (count == 0) {
        return standIn(false);
    }
    opus_ = view.encoding == Encoding::Opus;
    smoothStart(count);
    missingRun_ = 0;
    lastCount_ = count;
    return {Kind::Sound, block_.data(), count};
}

void BlockSource::smoothStart(std::size_t count) {
    const bool brokenOff = missingRun_ > 0 && (!opus_ || missingRun_ > SHORT_RUN);
    if (tailCount_ > 0) {
        crossfade(block_.data(), tail_.data(), std::min(count, tailCount_));
    } else if (fadeIn_ || brokenOff) {
        fade(block_.data(), std::min(count, FADE_IN_FRAMES), 0.0, 1.0);
    }
    tailCount_ = 0;
    fadeIn_ = false;
}

BlockSource::Block BlockSource::standIn(bool last) {
    const std::size_t count = conceal(last);
    if (!last) {
        return {Kind::Concealed, block_.data(), count};
    }
    const Kind kind = streamChanged_ ? Kind::Ended : Kind::RanDry;
    pausing_ = true;
    streamChanged_ = false;
    decoder_.reset();
    return {kind, block_.data(), count};
}

std::size_t BlockSource::conceal(bool last) {
    ++missingRun_;
    std::size_t count = 0;
    if (tailCount_ > 0) {
        count = tailCount_;
        block_ = tail_;
        fade(block_.data(), count, 1.0, 0.0);
        tailCount_ = 0;
        missingRun_ = LONGEST_RUN;
    } else if (opus_ && (count = decoder_.conceal(block_.data())) > 0) {
        fade(block_.data(), count, gainAfter(missingRun_ - 1), last ? 0.0 : gainAfter(missingRun_));
    } else {
        count = concealRaw();
    }
    return count;
}

std::size_t BlockSource::concealRaw() {
    const std::size_t count = lastCount_ > 0 ? lastCount_ : StreamDecoder::MAX_FRAMES;
    if (missingRun_ > 1 || lastCount_ == 0) {
        std::fill_n(block_.begin(), count * 2, std::int16_t{0});
        return count;
    }
    Samples mirrored;
    mirror(block_.data(), mirrored.data(), count);
    fade(mirrored.data(), count, 1.0, 0.0);
    std::copy_n(mirrored.begin(), count * 2, block_.begin());
    return count;
}

void BlockSource::resume() {
    pausing_ = false;
    fadeIn_ = true;
    missingRun_ = 0;
    lastCount_ = 0;
    tailCount_ = 0;
}

void BlockSource::skip(std::size_t packets) {
    Samples discarded;
    for (std::size_t i = 0; i < packets && !buffer_.empty(); ++i) {
        const StoredPacket* const packet = buffer_.front();
        if (i == 0) {
            tailCount_ = (packet != nullptr ? play(*packet) : standIn(false)).count;
            tail_ = block_;
        } else if (packet != nullptr && packets - i <= WARM_UP_PACKETS) {
            decoder_.decode(packet->view(), discarded.data());
        }
        buffer_.advance();
    }
}

}  // namespace vxlisten
