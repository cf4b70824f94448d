#include "listen/playout/playout.h"

#include <algorithm>
#include <iostream>

#include <gtest/gtest.h>

#include "tests/unit/listen/playout/virtual_stream.h"

using virtual_stream::Conditions;
using virtual_stream::frequencyOf;
using virtual_stream::largestStep;
using virtual_stream::Network;
using virtual_stream::Simulation;
using virtual_stream::steady;

namespace {

using Deliver = std::function<void(std::int64_t)>;

class Randomness {
  public:
    Randomness() : seed_(std::random_device{}()), engine_(seed_) {
        std::cout << "random seed " << seed_ << "\n";
    }
    double upTo(double limit) { return std::uniform_real_distribution<>(0.0, limit)(engine_); }

  private:
    std::random_device::result_type seed_;
    std::mt19937 engine_;
};

/// 10 ms with up to 5 ms more or less.
Network jittery(Randomness& random) {
    return [&random](std::uint64_t, std::int64_t sent, const Deliver& deliver) {
        deliver(sent + 5000 + static_cast<std::int64_t>(random.upTo(10000.0)));
    };
}

/// The largest step that the virtual stream's own tone makes.
int toneStep(const Conditions& setup) {
    return static_cast<int>(setup.amplitude * virtual_stream::TAU * setup.tone /
                            virtual_stream::RATE) +
           1;
}

class PlayoutForLong : public testing::TestWithParam<double> {};

}  // namespace

TEST_P(PlayoutForLong, NeitherRunsDryNorGrowsLateWhenTheServersClockIsOff) {
    Randomness random;
    Conditions setup;
    setup.serverPpm = GetParam();
    Simulation simulation(setup, jittery(random));
    simulation.run(200, false);
    simulation.forgetDepth();
    simulation.run(300, false);
    EXPECT_EQ(simulation.figures().underruns, 0u);
    EXPECT_EQ(simulation.figures().skipped, 0u);
    EXPECT_EQ(simulation.figures().concealed, 0u);
    EXPECT_EQ(simulation.figures().stretched, 0u);
    EXPECT_NEAR(simulation.figures().correctionPpm, GetParam(), 60.0);
    EXPECT_GT(simulation.leastDepth(), 30.0);
    EXPECT_LT(simulation.greatestDepth(), 50.0);
}

INSTANTIATE_TEST_SUITE_P(Playout, PlayoutForLong, testing::Values(-200.0, 0.0, 200.0));

TEST(Playout, DriftCorrectionKeepsThePitchWithinOneCent) {
    Conditions setup;
    setup.serverPpm = 200;
    Simulation simulation(setup, steady());
    simulation.run(200, false);
    simulation.run(20);
    const double cents = 1200.0 * std::log2(frequencyOf(simulation.played(), 48000) / 1000.0);
    EXPECT_LT(std::abs(cents), 1.0);
    EXPECT_LT(largestStep(simulation.played()), toneStep(setup) + 30);
}

TEST(Playout, SoundStartsOnceTheTargetIsReached) {
    Conditions setup;
    setup.delayMs = 100;
    Simulation simulation(setup, steady(0));
    simulation.run(0.09);
    EXPECT_FALSE(simulation.figures().playing);
    EXPECT_EQ(largestStep(simulation.played()), 0);
    simulation.run(0.06);
    EXPECT_TRUE(simulation.figures().playing);
    EXPECT_GT(largestStep(simulation.played()), 0);
}

TEST(Playout, FivePercentLossIsConcealedWithoutClicksOrUnderruns) {
    Randomness random;
    const Conditions setup;
    std::uint64_t dropped = 0;
    Simulation simulation(setup, [&](std::uint64_t, std::int64_t sent, const Deliver& deliver) {
        if (random.upTo(1.0) < 0.05) {
            ++dropped;
        } else {
            deliver(sent + 10000);
        }
    });
    simulation.run(60);
    EXPECT_GT(dropped, 0u);
    EXPECT_NEAR(static_cast<double>(simulation.figures().concealed), static_cast<double>(dropped),
                15.0);
    EXPECT_EQ(simulation.figures().underruns, 0u);
    EXPECT_LT(simulation.figures().jitterMs, 5.0) << "what is lost has not come late";
    EXPECT_LT(largestStep(simulation.played()), toneStep(setup) * 3 / 2 + 100);
}

TEST(Playout, AStallOfThreeHundredMillisecondsIsOneUnderrunAndLeavesNoLateness) {
    const Conditions setup;
    Simulation simulation(setup, [](std::uint64_t, std::int64_t sent, const Deliver& deliver) {
        const bool stalled = sent > 5'000'000 && sent < 5'300'000;
        deliver(stalled ? 5'305'000 : sent + 5000);
    });
    simulation.run(20);
    EXPECT_EQ(simulation.figures().underruns, 1u);
    EXPECT_TRUE(simulation.figures().playing);
    EXPECT_LT(simulation.figures().targetMs, 60.0);
    EXPECT_LT(simulation.figures().depthMs, simulation.figures().targetMs + 45.0);
    EXPECT_LT(largestStep(simulation.played()), toneStep(setup) * 3 / 2 + 100);
}

TEST(Playout, BurstsOfTenPacketsPlayWithoutUnderrunsOnceTheyAreKnown) {
    Simulation simulation(Conditions{},
                          [](std::uint64_t index, std::int64_t sent, const Deliver& deliver) {
                              const std::uint64_t waiting = 9 - index % 10;
                              deliver(sent + 5000 + static_cast<std::int64_t>(waiting) * 7042);
                          });
    simulation.run(30, false);
    const std::uint64_t before = simulation.figures().underruns;
    simulation.run(60, false);
    EXPECT_EQ(simulation.figures().underruns, before);
    EXPECT_GT(simulation.figures().targetMs, 60.0);
}

TEST(Playout, SoundThatPilesUpIsSkippedWithoutAClick) {
    const Conditions setup;
    Simulation simulation(setup, steady(250'000));
    simulation.run(2);
    simulation.setNetwork(steady(5000));
    simulation.run(120);
    EXPECT_GT(simulation.figures().skipped, 10u);
    EXPECT_LT(simulation.figures().depthMs, simulation.figures().targetMs + 45.0);
    EXPECT_EQ(simulation.figures().underruns, 0u);
    EXPECT_LT(largestStep(simulation.played()), toneStep(setup) * 3 / 2 + 100);
}
