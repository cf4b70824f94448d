#include "tests/unit/web/streams/heard_sound.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>
#include <ogg/ogg.h>
#include <opus/opus.h>
#include <sndfile.h>

namespace {

/// A file in memory for libsndfile.
struct Memory {
    const std::string* bytes;
    sf_count_t at = 0;

    [[nodiscard]] sf_count_t size() const { return static_cast<sf_count_t>(bytes->size()); }
};

Memory& memory(void* self) {
    return *static_cast<Memory*>(self);
}

sf_count_t seek(sf_count_t offset, int whence, void* self) {
    const sf_count_t from = whence == SEEK_SET   ? 0
                            : whence == SEEK_CUR ? memory(self).at
                                                 : memory(self).size();
    return memory(self).at = std::clamp<sf_count_t>(from + offset, 0, memory(self).size());
}

sf_count_t read(void* target, sf_count_t count, void* self) {
    const sf_count_t got = std::min(count, memory(self).size() - memory(self).at);
    std::memcpy(target, memory(self).bytes->data() + memory(self).at,
                static_cast<std::size_t>(got));
    memory(self).at += got;
    return got;
}

}  // namespace

HeardSound HeardSound::part(double begin, double end) const {
    const auto at = [this](double second) {
        return frames.begin() + 2 * std::min<std::ptrdiff_t>(std::lround(second * rate),
                                                             static_cast<std::ptrdiff_t>(count()));
    };
    return {rate, {at(begin), at(end)}};
}

double HeardSound::pitch() const {
    double first = -1;
    double last = -1;
    int periods = -1;
    for (std::size_t i = 1; i < count(); ++i) {
        const double before = frames[2 * (i - 1)];
        const double after = frames[2 * i];
        if (before < 0 && after >= 0) {
            last = static_cast<double>(i) - after / (after - before);
            first = first < 0 ? last : first;
            ++periods;
        }
    }
    return periods > 0 ? periods * rate / (last - first) : 0;
}

double HeardSound::level() const {
    double squares = 0;
    for (const std::int16_t sample : frames) {
        squares += static_cast<double>(sample) * sample;
    }
    return std::sqrt(2 * squares / static_cast<double>(std::max<std::size_t>(1, frames.size())));
}

int HeardSound::largestStep() const {
    int largest = 0;
    for (std::size_t i = 1; i < count(); ++i) {
        largest = std::max(largest, std::abs(frames[2 * i] - frames[2 * (i - 1)]));
    }
    return largest;
}

double HeardSound::silence() const {
    std::size_t run = 0;
    std::size_t total = 0;
    for (std::size_t i = 0; i <= count(); ++i) {
        if (i < count() && std::abs(frames[2 * i]) < 64) {
            ++run;
            continue;
        }
        total += static_cast<int>(run) > rate / 200 ? run : 0;
        run = 0;
    }
    return static_cast<double>(total) / rate;
}

HeardSound decodeByLibsndfile(const std::string& bytes) {
    SF_VIRTUAL_IO calls = {[](void* self) { return memory(self).size(); }, seek, read, nullptr,
                           [](void* self) { return memory(self).at; }};
    Memory file{&bytes};
    SF_INFO info = {};
    SNDFILE* const sound = sf_open_virtual(&calls, SFM_READ, &info, &file);
    if (sound == nullptr) {
        return {};
    }
    HeardSound heard{info.samplerate, {}};
    std::vector<std::int16_t> piece(2 * 4096);
    while (const sf_count_t got = sf_readf_short(sound, piece.data(), 4096)) {
        heard.frames.insert(heard.frames.end(), piece.begin(), piece.begin() + 2 * got);
    }
    sf_close(sound);
    return heard;
}

std::vector<HeardPage> readPages(const std::string& bytes) {
    ogg_sync_state sync;
    ogg_sync_init(&sync);
    std::copy(bytes.begin(), bytes.end(), ogg_sync_buffer(&sync, static_cast<long>(bytes.size())));
    ogg_sync_wrote(&sync, static_cast<long>(bytes.size()));
    std::vector<HeardPage> pages;
    ogg_page page;
    int result = 0;
    while ((result = ogg_sync_pageout(&sync, &page)) != 0) {
        EXPECT_GT(result, 0) << "bytes that belong to no page";
        HeardPage& heard = pages.emplace_back();
        heard.number = ogg_page_pageno(&page);
        heard.granule = ogg_page_granulepos(&page);
        heard.begins = ogg_page_bos(&page) != 0;
        const int segments = page.header[26];
        std::string packet;
        const unsigned char* body = page.body;
        for (int i = 0; i < segments; ++i) {
            const unsigned char length = page.header[27 + i];
            packet.append(body, body + length);
            body += length;
            if (length < 255) {
                heard.packets.push_back(packet);
                packet.clear();
            }
        }
        EXPECT_TRUE(packet.empty()) << "a packet goes on in another page";
    }
    ogg_sync_clear(&sync);
    return pages;
}

HeardSound decodeOpus(const std::vector<HeardPage>& pages) {
    OpusDecoder* const decoder = opus_decoder_create(48000, 2, nullptr);
    HeardSound heard{48000, {}};
    std::vector<std::int16_t> piece(2 * 5760);
    for (std::size_t i = 2; i < pages.size(); ++i) {
        for (const std::string& packet : pages[i].packets) {
            const int count =
                opus_decode(decoder, reinterpret_cast<const unsigned char*>(packet.data()),
                            static_cast<opus_int32>(packet.size()), piece.data(), 5760, 0);
            EXPECT_EQ(count, 480) << "of a packet in page " << pages[i].number;
            heard.frames.insert(heard.frames.end(), piece.begin(),
                                piece.begin() + 2 * std::max(0, count));
        }
    }
    opus_decoder_destroy(decoder);
    return heard;
}
