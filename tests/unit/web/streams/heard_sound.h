#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What a player makes of a stream, and how it sounds.
struct HeardSound {
    int rate = 0;                      ///< Hz.
    std::vector<std::int16_t> frames;  ///< Stereo.

    [[nodiscard]] std::size_t count() const { return frames.size() / 2; }
    [[nodiscard]] double seconds() const { return static_cast<double>(count()) / rate; }
    /// From `begin` to `end` seconds.
    [[nodiscard]] HeardSound part(double begin, double end) const;
    /// Frequency of a tone in Hz, of the left channel.
    [[nodiscard]] double pitch() const;
    /// Mean level as a peak value of a tone.
    [[nodiscard]] double level() const;
    /// The largest step between two samples of the left channel.
    [[nodiscard]] int largestStep() const;
    /// Frames in a row that are below 64 for more than 5 ms, summed up, in seconds.
    [[nodiscard]] double silence() const;
};

/// Decodes WAV, FLAC or MP3 by libsndfile; no frames when that cannot read it.
HeardSound decodeByLibsndfile(const std::string& bytes);

/// One page of an Ogg stream.
struct HeardPage {
    long number = 0;
    std::int64_t granule = 0;
    bool begins = false;
    std::vector<std::string> packets;
};

/// The pages of an Ogg stream; fails the test when bytes belong to none.
std::vector<HeardPage> readPages(const std::string& bytes);

/// Decodes the packets behind the two headers by libopus.
HeardSound decodeOpus(const std::vector<HeardPage>& pages);
