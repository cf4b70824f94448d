#include "listen/playout/block_source.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "listen/audio/splicing.h"

namespace vxlisten {

namespace {

constexpr std::size_t FADE_IN_FRAMES = 240;

}  // namespace

const QueuedBlock* BlockSource::takeArrival() {
    const QueuedBlock* const arrived = nextArrival();
    if (arrived == nullptr) {
        return nullptr;
    }
    if (arrived->join == Join::NewStream) {
        // The sound that was playing must still fade out: the next block does that, then comes the
        // pause.
        drop(seen_);
        tailCount_ = 0;
        streamChanged_ = !pausing_;
    }
    ++seen_;
    depthFrames_ += arrived->count;
    blockFrames_ = arrived->count;
    sampleRate_ = arrived->sampleRate;
    return arrived;
}

void BlockSource::drop(std::size_t blocks) {
    for (std::size_t i = 0; i < blocks; ++i) {
        depthFrames_ -= queue_[0].count;
        queue_.pop();
    }
    seen_ -= blocks;
}

BlockSource::Block BlockSource::next() {
    assert(!pausing_);
    if (streamChanged_ || empty()) {
        return fadeOut();
    }
    const QueuedBlock& front = queue_[0];
    const Kind kind = front.concealed ? Kind::Concealed : Kind::Sound;
    const bool fadeIn = fadeIn_ || front.join == Join::FadeIn;
    const std::size_t leftOut = std::min(std::exchange(leftOut_, 0), front.count - 1);
    lastCount_ = front.count - leftOut;
    end_ = front.position + front.count;
    std::copy_n(front.frames.begin() + static_cast<std::ptrdiff_t>(2 * leftOut), 2 * lastCount_,
                block_.begin());
    drop(1);
    if (tailCount_ > 0) {
        crossfade(block_.data(), tail_.data(), std::min(lastCount_, tailCount_));
    } else if (fadeIn) {
        fade(block_.data(), std::min(lastCount_, FADE_IN_FRAMES), 0.0, 1.0);
    }
    tailCount_ = 0;
    fadeIn_ = false;
    return {kind, block_.data(), lastCount_, end_};
}

BlockSource::Block BlockSource::fadeOut() {
    const QueuedBlock* const next = nextArrival();
    const bool ended = streamChanged_ || (next != nullptr && next->join == Join::NewStream);
    const Kind kind = ended ? Kind::Ended : Kind::Underrun;
    pausing_ = true;
    streamChanged_ = false;
    if (tailCount_ > 0) {
        block_ = tail_;
        lastCount_ = tailCount_;
    } else {
        mirror(block_.data(), lastCount_);
    }
    fade(block_.data(), lastCount_, 1.0, 0.0);
    end_ += lastCount_;
    return {kind, block_.data(), lastCount_, end_};
}

void BlockSource::resume(std::size_t leftOut) {
    leftOut_ = leftOut;
    pausing_ = false;
    fadeIn_ = true;
    lastCount_ = 0;
    tailCount_ = 0;
}

std::optional<std::size_t> BlockSource::leaveOutUntil(double position) {
    while (!empty() && static_cast<double>(queue_[0].position + queue_[0].count) <= position) {
        drop(1);
    }
    if (empty()) {
        return std::nullopt;
    }
    const double before = position - static_cast<double>(queue_[0].position);
    return before > 0 ? static_cast<std::size_t>(before) : 0;
}

void BlockSource::skip(std::size_t blocks) {
    blocks = std::min(blocks, seen_);
    if (blocks > 0 && !pausing_ && !streamChanged_) {
        tailCount_ = next().count;
        tail_ = block_;
        --blocks;
    }
    drop(blocks);
}

}  // namespace vxlisten
