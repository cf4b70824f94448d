#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <opus/opus.h>

#include "listen/audio/stream_decoder.h"
#include "listen/network/audio_packet.h"
#include "listen/network/sequence_tracker.h"
#include "listen/playout/playout.h"
#include "listen/playout/send_clock.h"
#include "tests/support/packets.h"

/// One server and several listeners, each with its own network, clock and output device, in virtual
/// time. The phases of two tones show the delay. Times in seconds.
namespace virtual_rooms {

constexpr double TAU = 6.283185307179586;
/// Hz, as captured. The first one shows the delay modulo 20 ms, both together modulo 40 ms.
constexpr double TONES[] = {50, 75};
constexpr double PERIOD_MS = 40;
constexpr int DEVICE_RATE = 48000;

/// What the server captures and when it sends it.
struct Server {
    double ppm = 0;  ///< How much faster than nominal its clock runs.
    int rate = 48000;
    bool opus = false;
    /// The sound comes in blocks of this many frames; a packet is sent when it is full.
    std::uint64_t blockFrames = 337;
    double start = 0;
    /// From this time on everything is captured later by `shift`.
    double shiftAt = 1e9;
    double shift = 0;

    [[nodiscard]] double frameTime(std::uint64_t frames) const {
        const double time = start + static_cast<double>(frames) / rate / (1 + ppm * 1e-6);
        return time >= shiftAt ? time + shift : time;
    }
    /// When the packet with this number is sent.
    [[nodiscard]] double sendTime(std::uint64_t number) const {
        std::uint64_t end = 338 * (number + 1);
        if (opus) {
            end = (480 * (number + 1) + 337) / 338 * 338;
        }
        const std::uint64_t blocks = (end + blockFrames - 1) / blockFrames;
        return frameTime(blocks * blockFrames) + 0.0001 + (opus ? 0.0005 : 0);
    }
};

/// The way of a packet that is sent at `sent`: how long it takes; nothing when it is lost.
using Way = std::function<std::optional<double>(double sent)>;

/// The properties of an output device.
struct Device {
    double ppm = 0;
    double latency = 0.03;
    double start = 0;
    std::size_t period = 480;  ///< Frames that it asks for at a time, at most 480.
    /// What it says instead of its latency at a time, in seconds.
    std::function<double(double now, double latency)> stamp = [](double, double real) {
        return real;
    };
};

class Listener {
  public:
    Listener(const Server& server, Way way, const Device& device,
             const vxlisten::PlayoutSettings& settings)
        : server_(server),
          way_(std::move(way)),
          device_(device),
          settings_(settings),
          playout_(std::make_unique<vxlisten::Playout>(DEVICE_RATE, settings, 30)) {
        encoder_.reset(opus_encoder_create(48000, 2, OPUS_APPLICATION_AUDIO, nullptr));
        join();
    }

    /// Another server, or the same one restarted.
    void setServer(const Server& server) {
        before_ = server_;
        server_ = server;
        encoder_.reset(opus_encoder_create(48000, 2, OPUS_APPLICATION_AUDIO, nullptr));
        tracker_.restart();
        flying_.clear();
        join();
    }

    void setWay(Way way) { way_ = std::move(way); }

    /// From the listener to the server, where that is another one.
    void setWayThere(Way way) { wayThere_ = std::move(way); }

    /// Replaces the device, as when it is reopened.
    void setDevice(const Device& device) {
        device_ = device;
        played_ = 0;
        playout_ = std::make_unique<vxlisten::Playout>(DEVICE_RATE, settings_, 30);
    }

    /// The device has an underrun of this length.
    void underrun(double gap) {
        device_.start += gap;
        playout_->noteDeviceUnderrun();
    }

    /// Advances the time to `end`.
    void run(double end) {
        std::array<std::int16_t, 2 * 480> output{};
        for (double now = callTime(); now <= end; now = callTime()) {
            deliverUntil(now);
            const double latency = device_.stamp(now, device_.latency) * 1e6;
            playout_->render(output.data(), device_.period, microseconds(now), latency);
            for (std::size_t i = 0; i < device_.period; ++i) {
                hear(output[2 * i]);
            }
        }
        deliverUntil(end);
    }

    /// How much later than the capture of its last frame in a raw packet the sound was heard, for
    /// each 80 ms that it was: (time, delay) in seconds, the delay modulo 40 ms.
    struct Heard {
        double time;
        double delay;
    };
    [[nodiscard]] const std::vector<Heard>& heard() const { return heard_; }
    [[nodiscard]] const vxlisten::PlayoutFigures& figures() const { return playout_->figures(); }
    [[nodiscard]] const vxlisten::SendClock& sendClock() const { return sendClock_; }

  private:
    struct InFlight {
        double arrival;
        packets::Bytes bytes;
    };
    struct EncoderDeleter {
        void operator()(OpusEncoder* encoder) const { opus_encoder_destroy(encoder); }
    };
    static constexpr std::size_t WINDOW = 3840;  ///< Whole periods of both tones.

    static constexpr std::complex<double> I{0, 1};

    static std::int64_t microseconds(double seconds) {
        return static_cast<std::int64_t>(std::llround(seconds * 1e6)) + 1'000'000'000;
    }

    double frameHeard(double frame) const {
        return device_.start + frame / DEVICE_RATE / (1 + device_.ppm * 1e-6) + device_.latency;
    }
    double callTime() const { return frameHeard(static_cast<double>(played_)) - device_.latency; }

    /// The first packet that is sent after the connection.
    void join() {
        next_ = 0;
        while (server_.sendTime(next_) < lastDelivery_) {
            ++next_;
        }
    }

    void hear(std::int16_t sample) {
        const double time = frameHeard(static_cast<double>(played_++));
        const double sent = time - settings_.delayMs.value_or(0) / 1000;
        const Server& server = sent < server_.start ? before_ : server_;
        for (std::size_t i = 0; i < sums_.size(); ++i) {
            const double pace = TONES[i] * (1 + server.ppm * 1e-6);
            sums_[i] += std::polar<double>(sample, TAU * pace * (time - server.start));
        }
        if (played_ % WINDOW != 0) {
            return;
        }
        const double level = 2 * std::abs(sums_[0]) / WINDOW;
        if (level > 7000) {
            // A tone that comes later by d has the sum of i * exp(i * 2 pi f d).
            double delay = std::arg(sums_[0] / I) / TAU / TONES[0];
            const auto other = sums_[1] / I * std::polar(1.0, -TAU * TONES[1] * delay);
            delay += other.real() < 0 ? 1 / TONES[0] : 0.0;
            heard_.push_back({time, delay - 338.0 / server.rate});
        }
        sums_ = {};
    }

    void deliverUntil(double now) {
        for (; server_.sendTime(next_) <= now; ++next_) {
            const double sent = server_.sendTime(next_);
            packets::Bytes bytes = makePacket(next_);
            if (const auto taken = way_(sent)) {
                latest_ = std::max(latest_, sent + *taken);
                flying_.push_back({latest_, std::move(bytes)});
            }
        }
        for (; nextPing_ <= now; nextPing_ += nextPing_ < device_.start + 60 ? 0.051 : 0.251) {
            // The server answers when it next sends something.
            const double there = nextPing_ + (wayThere_ ? wayThere_ : way_)(nextPing_).value_or(1);
            const double back = way_(there).value_or(1);
            const double wait = std::fmod(there, 0.007);
            sendClock_.noteRoundTrip((there - nextPing_ + wait + back) * 1e6);
        }
        while (!flying_.empty() && flying_.front().arrival <= now) {
            deliver(flying_.front());
            flying_.pop_front();
        }
        lastDelivery_ = now;
    }

    packets::Bytes makePacket(std::uint64_t number) {
        const std::size_t frames = server_.opus ? 480 : 338;
        std::vector<std::int16_t> sound;
        for (std::uint64_t i = number * frames; i < (number + 1) * frames; ++i) {
            const double time = static_cast<double>(i) / server_.rate;
            const auto value = static_cast<std::int16_t>(std::lround(
                10000 * (std::sin(TAU * TONES[0] * time) + std::sin(TAU * TONES[1] * time))));
            sound.insert(sound.end(), {value, value});
        }
        packets::Bytes payload = packets::toBytes(sound);
        if (server_.opus) {
            payload.resize(wire::MAX_OPUS_BYTES);
            const auto length = opus_encode(encoder_.get(), sound.data(), 480, payload.data(),
                                            static_cast<opus_int32>(payload.size()));
            payload.resize(static_cast<std::size_t>(length));
        }
        return packets::make(static_cast<std::uint32_t>(number),
                             wire::makeFlags(true, server_.rate == 48000, server_.opus ? 2 : 0),
                             payload);
    }

    void deliver(const InFlight& flight) {
        const auto packet = vxlisten::parseAudioPacket(flight.bytes.data(), flight.bytes.size());
        const std::int64_t now = microseconds(flight.arrival);
        decoder_.decode(*packet, tracker_.observe(*packet), [&](const auto& block) {
            playout_->queue().push(block, now, sendClock_.next(block, *packet, now));
        });
    }

    Server server_;
    Server before_;  ///< The server until setServer().
    Way way_;
    Way wayThere_;
    Device device_;
    vxlisten::PlayoutSettings settings_;
    std::unique_ptr<vxlisten::Playout> playout_;
    vxlisten::SequenceTracker tracker_;
    vxlisten::StreamDecoder decoder_;
    vxlisten::SendClock sendClock_;
    std::unique_ptr<OpusEncoder, EncoderDeleter> encoder_;
    std::uint64_t next_ = 0;
    std::deque<InFlight> flying_;
    double latest_ = 0;
    double lastDelivery_ = 0;
    double nextPing_ = 0;
    std::uint64_t played_ = 0;
    std::array<std::complex<double>, 2> sums_{};
    std::vector<Heard> heard_;
};

/// `seconds` modulo 40 ms: -20 to 20 ms.
inline double wrapped(double seconds) {
    return std::remainder(seconds * 1000, PERIOD_MS);
}

/// The middle and the greatest of some values.
struct Spread {
    double median = 0;
    double most = 0;
};

inline Spread spreadOf(std::vector<double> values) {
    if (values.empty()) {
        return {1e9, 1e9};
    }
    std::sort(values.begin(), values.end());
    return {values[values.size() / 2], values.back()};
}

/// How far a listener is from `delayMs`, from `from` to `to`; milliseconds.
inline Spread offTheDelay(const Listener& one, double delayMs, double from, double to) {
    std::vector<double> values;
    for (const auto& heard : one.heard()) {
        if (heard.time >= from && heard.time < to) {
            values.push_back(std::abs(wrapped(heard.delay - delayMs / 1000)));
        }
    }
    return spreadOf(values);
}

/// How many pieces of 80 ms are heard from `from` to `to`.
inline int heardPieces(const Listener& one, double from, double to) {
    const auto within = [from, to](const auto& heard) {
        return heard.time >= from && heard.time < to;
    };
    return static_cast<int>(std::count_if(one.heard().begin(), one.heard().end(), within));
}

/// How much the delay of a listener changes at most from 80 ms to the next, from
/// `from` to `to`; milliseconds.
inline double greatestChange(const Listener& one, double from, double to = 1e9) {
    double most = 0;
    for (std::size_t i = 1; i < one.heard().size(); ++i) {
        if (one.heard()[i - 1].time >= from && one.heard()[i].time < to) {
            most =
                std::max(most, std::abs(wrapped(one.heard()[i].delay - one.heard()[i - 1].delay)));
        }
    }
    return most;
}

/// How far two listeners are from each other, from `from` to `to`; milliseconds.
inline Spread apart(const Listener& one, const Listener& other, double from, double to) {
    std::vector<double> values;
    auto second = other.heard().begin();
    for (const auto& heard : one.heard()) {
        while (second != other.heard().end() && second->time < heard.time - 0.05) {
            ++second;
        }
        if (second != other.heard().end() && second->time < heard.time + 0.05 &&
            heard.time >= from && heard.time < to) {
            values.push_back(std::abs(wrapped(heard.delay - second->delay)));
        }
    }
    return spreadOf(values);
}

}  // namespace virtual_rooms
