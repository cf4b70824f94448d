#include <algorithm>
#include <iostream>
#include <memory>

#include <gtest/gtest.h>

#include "listen/audio/splicing.h"
#include "listen/playout/playout.h"
#include "tests/support/packets.h"
#include "tests/unit/listen/playout/virtual_stream.h"

using virtual_stream::Conditions;
using virtual_stream::frequencyOf;
using virtual_stream::largestStep;
using virtual_stream::Simulation;

namespace {

/// Jitter whose greatest value a test changes.
class GrowthTest : public testing::Test {
  protected:
    GrowthTest() : seed_(std::random_device{}()), random_(seed_) {
        std::cout << "random seed " << seed_ << "\n";
    }

    virtual_stream::Network network() {
        return [this](std::uint64_t, std::int64_t sent,
                      const std::function<void(std::int64_t)>& deliver) {
            const double delay = std::uniform_real_distribution<>(0.0, jitterMs_)(random_);
            deliver(sent + 5000 + static_cast<std::int64_t>(delay * 1000));
        };
    }

    static Conditions setup(double delayMs) {
        Conditions conditions;
        conditions.delayMs = delayMs;
        conditions.tone = 500;
        return conditions;
    }

    std::random_device::result_type seed_;
    std::mt19937 random_;
    double jitterMs_ = 0;
};

}  // namespace

TEST_F(GrowthTest, RisingJitterIsMetBeforeTheSoundRunsDry) {
    Simulation simulation(setup(40), network());
    simulation.run(5);
    for (int second = 0; second < 60; ++second) {
        jitterMs_ += 1.5;
        simulation.run(1);
    }
    EXPECT_EQ(simulation.figures().underruns, 0u);
    EXPECT_GT(simulation.figures().targetMs, 78.0);
    EXPECT_GT(simulation.figures().depthMs, 65.0);
    EXPECT_GT(simulation.figures().stretched, 5u);
    EXPECT_LT(largestStep(simulation.played()), 10000 * 3 / 2 * 66 / 1000 + 200);
}

TEST_F(GrowthTest, WhereNothingWasChosenItShrinksAndGrowsBeforeTheSoundRunsDry) {
    Conditions conditions = setup(40);
    conditions.delayChosen = false;
    conditions.serverPpm = 100;
    Simulation simulation(conditions, network());
    EXPECT_EQ(simulation.figures().targetMs, 40.0);
    simulation.run(180, false);
    EXPECT_LT(simulation.figures().targetMs, 12.0);
    EXPECT_LT(simulation.figures().depthMs, 14.0);
    simulation.run(60, false);
    for (int second = 0; second < 60; ++second) {
        jitterMs_ += 0.5;
        simulation.run(1, false);
    }
    EXPECT_GT(simulation.figures().targetMs, 30.0);
    EXPECT_EQ(simulation.figures().underruns, 0u);
    EXPECT_EQ(simulation.figures().skipped, 0u);
}

TEST_F(GrowthTest, ACaptureInOtherBlocksLeavesTheShortBufferFull) {
    const auto waiting = [this](std::uint64_t index, std::int64_t sent,
                                const std::function<void(std::int64_t)>& deliver) {
        const std::uint64_t end = (index + 1) * virtual_stream::PACKET_FRAMES;
        const auto waited =
            static_cast<std::int64_t>((337 - end % 337) % 337 * 1000000 / virtual_stream::RATE);
        const double jitter = std::uniform_real_distribution<>(0.0, 1000.0)(random_);
        deliver(sent + waited + static_cast<std::int64_t>(jitter));
    };
    Conditions conditions = setup(40);
    conditions.delayChosen = false;
    conditions.serverPpm = 50;
    Simulation simulation(conditions, waiting);
    simulation.run(180, false);
    EXPECT_LT(simulation.figures().targetMs, 14.5);
    simulation.run(600, false);
    EXPECT_EQ(simulation.figures().underruns, 0u);
    EXPECT_LT(simulation.figures().targetMs, 14.5) << "it does not run nearly dry either";
}

TEST(Stretch, ATonesPitchStaysAndNoStepIsHeard) {
    std::vector<std::int16_t> played;
    for (std::size_t packet = 0; packet < 100; ++packet) {
        const auto block = packets::tone(338, packet * 338);
        std::vector<std::int16_t> longer(2 * (338 + vxlisten::STRETCH_MAXIMUM_ADDED));
        const std::size_t count =
            packet % 5 == 0 ? vxlisten::stretch(block.data(), 338, longer.data()) : 338;
        const auto& source = packet % 5 == 0 ? longer : block;
        EXPECT_EQ(count > 338, packet % 5 == 0);
        played.insert(played.end(), source.begin(),
                      source.begin() + static_cast<std::ptrdiff_t>(2 * count));
    }
    EXPECT_NEAR(frequencyOf(played, 48000), 1000.0, 3.0);
    EXPECT_LT(largestStep(played), 1310 * 5 / 4 + 10);
}

TEST(Stretch, SilenceGrowsLongerToo) {
    const std::vector<std::int16_t> silence(480 * 2);
    std::vector<std::int16_t> longer(2 * (480 + vxlisten::STRETCH_MAXIMUM_ADDED), 1);
    const std::size_t count = vxlisten::stretch(silence.data(), 480, longer.data());
    EXPECT_GT(count, 480u);
    longer.resize(2 * count);
    EXPECT_EQ(longer, std::vector<std::int16_t>(2 * count));
}

TEST(Stretch, AShortBlockStaysAsItIs) {
    const auto block = packets::tone(100);
    std::vector<std::int16_t> copy(block.size());
    EXPECT_EQ(vxlisten::stretch(block.data(), 100, copy.data()), 100u);
    EXPECT_EQ(copy, block);
}
