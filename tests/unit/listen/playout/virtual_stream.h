#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <vector>

#include "listen/playout/playout.h"
#include "tests/unit/listen/playout/packet_feed.h"

/// A server, a network and an output device that live in virtual time.
namespace virtual_stream {

constexpr double TAU = 6.283185307179586;
constexpr int RATE = 48000;  ///< Of stream and device, Hz.
constexpr std::size_t PACKET_FRAMES = 338;

struct Conditions {
    double serverPpm = 0;  ///< How much faster than the device the server's clock runs.
    int tone = 1000;       ///< Hz, as captured.
    double amplitude = 10000;
    double delayMs = 40;      ///< The delay to keep,
    bool delayChosen = true;  ///< at least.
    double periodMs = 10;     ///< Of the output device.
    std::uint32_t firstSeq = 0;
};

/// Decides what the network does with packet number `index`, sent at `sent` (microseconds): calls
/// the function with the time at which it arrives, if it does. None overtakes another, as with
/// ENet.
using Network = std::function<void(std::uint64_t index, std::int64_t sent,
                                   const std::function<void(std::int64_t)>&)>;

/// A network that delivers everything after `delay` microseconds.
inline Network steady(std::int64_t delay = 5000) {
    return [delay](std::uint64_t, std::int64_t sent,
                   const std::function<void(std::int64_t)>& deliver) { deliver(sent + delay); };
}

class Simulation {
  public:
    Simulation(const Conditions& setup, Network network)
        : setup_(setup),
          network_(std::move(network)),
          playout_(RATE, {setup.delayMs, setup.delayChosen}),
          feed_(playout_.queue()) {
        for (int i = 0; i < RATE; ++i) {
            const double angle = TAU * setup.tone * i / RATE;
            const auto value =
                static_cast<std::int16_t>(std::lround(setup.amplitude * std::sin(angle)));
            second_.insert(second_.end(), {value, value});
        }
        second_.insert(second_.end(), second_.begin(), second_.begin() + 2 * PACKET_FRAMES);
    }

    /// Advances the time by `seconds`. Appends the device's sound to played() unless `keep` is
    /// false.
    void run(double seconds, bool keep = true) {
        const auto end = now_ + static_cast<std::int64_t>(seconds * 1e6);
        const auto frames = static_cast<std::size_t>(RATE * setup_.periodMs / 1000.0);
        std::vector<std::int16_t> output(frames * 2);
        const auto period = static_cast<std::int64_t>(setup_.periodMs * 1000);
        while (now_ + period <= end) {
            now_ += period;
            sendUntil(now_);
            deliverUntil(now_);
            playout_.render(output.data(), frames, now_);
            leastDepth_ = std::min(leastDepth_, figures().depthMs.load());
            greatestDepth_ = std::max(greatestDepth_, figures().depthMs.load());
            if (keep) {
                played_.insert(played_.end(), output.begin(), output.end());
            }
        }
    }

    /// Changes what the network does from the next packet on.
    void setNetwork(Network network) { network_ = std::move(network); }

    void forgetDepth() { leastDepth_ = 1e9, greatestDepth_ = 0; }

    const vxlisten::PlayoutFigures& figures() const { return playout_.figures(); }
    const std::vector<std::int16_t>& played() const { return played_; }
    std::vector<std::int16_t>& played() { return played_; }
    double leastDepth() const { return leastDepth_; }
    double greatestDepth() const { return greatestDepth_; }
    std::uint64_t sentPackets() const { return sent_; }

  private:
    struct InFlight {
        std::int64_t arrival;
        std::uint64_t index;
    };

    std::int64_t sendTime(std::uint64_t index) const {
        const double packetUs = 1e6 * static_cast<double>(PACKET_FRAMES) / RATE;
        return static_cast<std::int64_t>(static_cast<double>(index + 1) * packetUs /
                                         (1.0 + setup_.serverPpm * 1e-6));
    }

    void sendUntil(std::int64_t now) {
        while (sendTime(sent_) <= now) {
            const std::uint64_t index = sent_++;
            network_(index, sendTime(index), [&](std::int64_t arrival) {
                latest_ = std::max(latest_, arrival);
                flying_.push_back({latest_, index});
            });
        }
    }

    void deliverUntil(std::int64_t now) {
        while (!flying_.empty() && flying_.front().arrival <= now) {
            deliver(flying_.front());
            flying_.pop_front();
        }
    }

    void deliver(const InFlight& flight) {
        vxlisten::AudioPacket packet;
        packet.seq = static_cast<std::uint32_t>(flight.index);
        packet.sampleRate = RATE;
        packet.frames = PACKET_FRAMES;
        packet.payload = reinterpret_cast<const unsigned char*>(
            &second_[2 * (flight.index * PACKET_FRAMES % RATE)]);
        packet.payloadLength = 4 * PACKET_FRAMES;
        feed_.push(packet, flight.arrival);
    }

    Conditions setup_;
    Network network_;
    vxlisten::Playout playout_;
    PacketFeed feed_;
    std::int64_t now_ = 0;
    std::uint64_t sent_ = 0;
    std::deque<InFlight> flying_;
    std::int64_t latest_ = 0;
    std::vector<std::int16_t> second_;  ///< The sound of a second, and a packet's more.
    std::vector<std::int16_t> played_;
    double leastDepth_ = 1e9;
    double greatestDepth_ = 0;
};

/// Mean frequency of the left channel in Hz, from its interpolated upward zero crossings.
inline double frequencyOf(const std::vector<std::int16_t>& stereo, int rate) {
    double first = -1;
    double last = -1;
    std::size_t count = 0;
    for (std::size_t i = 1; i < stereo.size() / 2; ++i) {
        const double before = stereo[2 * (i - 1)];
        const double here = stereo[2 * i];
        if (before < 0 && here >= 0) {
            last = static_cast<double>(i) - here / (here - before);
            first = first < 0 ? last : first;
            ++count;
        }
    }
    return count < 2 ? 0.0 : static_cast<double>(count - 1) * rate / (last - first);
}

/// The largest step between two neighbouring samples of the left channel.
inline int largestStep(const std::vector<std::int16_t>& stereo) {
    int largest = 0;
    for (std::size_t i = 1; i < stereo.size() / 2; ++i) {
        largest = std::max(largest, std::abs(stereo[2 * i] - stereo[2 * (i - 1)]));
    }
    return largest;
}

}  // namespace virtual_stream
