#include <iostream>
#include <random>

#include <gtest/gtest.h>

#include "tests/unit/listen/playout/virtual_rooms.h"

using virtual_rooms::apart;
using virtual_rooms::Device;
using virtual_rooms::Listener;
using virtual_rooms::offTheDelay;
using virtual_rooms::Server;
using virtual_rooms::Spread;
using virtual_rooms::Way;

namespace {

constexpr double DELAY = 200;

vxlisten::PlayoutSettings keeping(double delayMs, double offsetMs = 0) {
    vxlisten::PlayoutSettings settings;
    settings.delayMs = delayMs;
    settings.offsetMs = offsetMs;
    return settings;
}

Way steady(double delay = 0.0002) {
    return [delay](double) { return std::optional(delay); };
}

class Rooms : public testing::Test {
  protected:
    Rooms() : seed_(std::random_device{}()), random_(seed_) {
        std::cout << "random seed " << seed_ << "\n";
    }

    double between(double least, double most) {
        return std::uniform_real_distribution<>(least, most)(random_);
    }

    Way jittery(double least, double most) {
        return [this, least, most](double) { return std::optional(between(least, most)); };
    }

    /// A device whose time stamps waver.
    Device device(double ppm, double latency) {
        Device result;
        result.ppm = ppm;
        result.latency = latency;
        result.stamp = [this](double, double real) { return real + between(-0.0005, 0.0005); };
        return result;
    }

    /// Judges two listeners at all times from 3 s after the first sound.
    static void expectInStep(const Listener& one, const Listener& other, double end, double median,
                             double most) {
        const double first = std::max(one.heard().front().time, other.heard().front().time);
        const Spread young = apart(one, other, first + 3, first + 10);
        const Spread later = apart(one, other, first + 10, end);
        std::cout << "3 to 10 s: median " << young.median << " ms, most " << young.most
                  << " ms; later: median " << later.median << " ms, most " << later.most << " ms\n";
        EXPECT_LT(young.most, std::max(2.0, most));
        EXPECT_LT(later.median, median);
        EXPECT_LT(later.most, most);
    }

    std::random_device::result_type seed_;
    std::mt19937 random_;
};

}  // namespace

TEST_F(Rooms, TwoListenersWithUnlikeClocksAndDevicesPlayAtTheChosenDelay) {
    for (const double ppm : {-300.0, 0.0, 300.0}) {
        Server server;
        server.ppm = ppm;
        Listener one(server, steady(), device(0, 0.02), keeping(DELAY));
        Listener other(server, steady(), device(-ppm, 0.11), keeping(DELAY));
        one.run(60);
        other.run(60);
        expectInStep(one, other, 60, 0.5, 1);
        const Spread off = offTheDelay(one, DELAY, 13, 60);
        std::cout << "off the delay: median " << off.median << " ms, most " << off.most << " ms\n";
        EXPECT_LT(off.median, 0.5);
        EXPECT_EQ(one.figures().underruns, 0u);
    }
}
