#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "listen/audio/rate_adapter.h"
#include "listen/network/audio_packet.h"

namespace vxlisten {

/// Resamples the sound to the device's rate, slightly faster or slower as steered, and keeps it
/// until the device requests it. Not thread-safe. Realtime-safe: yes, except the constructor.
class SteeredResampler {
  public:
    /// Maximum correction in parts per million.
    static constexpr double MAXIMUM_PPM = 5500;
    /// Maximum frames to take at once.
    static constexpr std::size_t MAXIMUM_TAKEN = 4096;

    /// `deviceRate` in Hz.
    explicit SteeredResampler(int deviceRate);

    /// The sound that follows has this rate, in Hz: one of SAMPLE_RATES.
    void prepare(int streamRate);

    /// Plays `ppm` parts per million faster than nominal from now on.
    void steer(double ppm);

    /// Appends `count` stereo frames of the stream.
    void feed(const std::int16_t* frames, std::size_t count);

    /// Appends `count` stereo frames of silence, at the device's rate.
    void feedSilence(std::size_t count);

    /// Moves `count` frames to `output`; at least as many must wait.
    void take(std::int16_t* output, std::size_t count);

    /// Frames that wait, at the device's rate.
    [[nodiscard]] std::size_t waiting() const { return (end_ - start_) / 2; }

    /// Frames of the stream that were fed and not yet taken.
    [[nodiscard]] double held() const;

    /// The rate of the stream in Hz, 0 before any.
    [[nodiscard]] int streamRate() const { return streamRate_; }

  private:
    void makeRoom();

    static constexpr std::size_t FIFO_SAMPLES = 1 << 15;

    int deviceRate_;
    /// One for each rate that a stream can have.
    std::array<Resampler, SAMPLE_RATES.size()> resamplers_;
    SpeexResamplerState* resampler_ = nullptr;  ///< The one in use.
    int streamRate_ = 0;
    double carry_ = 0;                ///< Accumulated rounding error of the ratio.
    std::vector<std::int16_t> fifo_;  ///< Samples at the device's rate, start_ to end_.
    std::size_t start_ = 0;
    std::size_t end_ = 0;
};

}  // namespace vxlisten
