#include <iostream>
#include <random>

#include <gtest/gtest.h>

#include "tests/unit/listen/playout/virtual_rooms.h"

using virtual_rooms::apart;
using virtual_rooms::Device;
using virtual_rooms::greatestChange;
using virtual_rooms::heardPieces;
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

    /// A device whose time stamps vary.
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
        const Spread settling = apart(one, other, first + 3, first + 10);
        const Spread later = apart(one, other, first + 10, end);
        std::cout << "3 to 10 s: median " << settling.median << " ms, most " << settling.most
                  << " ms; later: median " << later.median << " ms, most " << later.most << " ms\n";
        EXPECT_LT(settling.most, std::max(2.0, most));
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
        EXPECT_LT(greatestChange(one, 3.5), 0.3);
        EXPECT_LT(greatestChange(other, 3.5), 0.3);
        EXPECT_EQ(one.figures().underruns, 0u);
    }
}

TEST_F(Rooms, FivePercentLossLeavesThemInStep) {
    const auto lossy = [this](double) {
        return between(0, 1) < 0.05 ? std::nullopt : std::optional(0.0002);
    };
    const Server server;
    Listener one(server, lossy, device(100, 0.03), keeping(DELAY));
    Listener other(server, lossy, device(-50, 0.06), keeping(DELAY));
    one.run(60);
    other.run(60);
    EXPECT_GT(one.figures().concealed, 200u);
    // Up to a tenth of what is judged at a time is made up.
    expectInStep(one, other, 60, 0.5, 2.5);
}

TEST_F(Rooms, JitterOnOneOfTwoLeavesThemInStep) {
    Server server;
    server.ppm = 40;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    Listener other(server, jittery(0.0002, 0.0102), device(30, 0.05), keeping(DELAY));
    one.run(60);
    other.run(60);
    expectInStep(one, other, 60, 2, 4);
    EXPECT_LT(greatestChange(other, 3.5), 1);
    EXPECT_EQ(other.figures().underruns, 0u);
}

TEST_F(Rooms, ASlowWayWithMuchJitterIsJudgedByItsRoundTrip) {
    Server server;
    server.ppm = 40;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    Listener other(server, jittery(0.01, 0.05), device(30, 0.05), keeping(DELAY));
    one.run(180);
    other.run(180);
    const Spread settling = apart(one, other, 3, 13);
    const Spread firstMinute = apart(one, other, 13, 60);
    const Spread later = apart(one, other, 60, 180);
    for (const Spread& spread : {settling, firstMinute, later}) {
        std::cout << "median " << spread.median << " ms, most " << spread.most << " ms\n";
    }
    EXPECT_LT(settling.median, 10);
    EXPECT_LT(firstMinute.median, 7);
    EXPECT_LT(firstMinute.most, 12);
    EXPECT_LT(later.median, 5);
    EXPECT_LT(later.most, 8);
    EXPECT_LT(greatestChange(other, other.heard().front().time + 3), 1);
}

TEST_F(Rooms, AWayThatGetsLongerForAMinuteLeavesThemInStep) {
    const Server server;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    Listener other(
        server, [](double sent) { return sent > 40 && sent < 100 ? 0.0202 : 0.0002; },
        device(0, 0.05), keeping(DELAY));
    one.run(160);
    other.run(160);
    expectInStep(one, other, 160, 0.5, 2);
    EXPECT_LT(greatestChange(other, 3.5), 0.5);
    EXPECT_EQ(other.figures().underruns, 0u);
}

TEST_F(Rooms, AWayThatGetsLongerInOneDirectionForAMinuteLeavesThemInStep) {
    const Server server;
    Listener one(
        server, [](double sent) { return sent > 40 && sent < 100 ? 0.0202 : 0.0002; },
        device(0, 0.05), keeping(DELAY));
    one.setWayThere(steady());
    one.run(160);
    const Spread off = offTheDelay(one, DELAY, 13, 160);
    EXPECT_LT(off.median, 0.5);
    EXPECT_LT(off.most, 2);
}

TEST_F(Rooms, AWayThatStaysLongerDoesNot) {
    const Server server;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    Listener other(
        server, [](double sent) { return sent > 40 ? 0.0202 : 0.0002; }, device(0, 0.05),
        keeping(DELAY));
    one.run(240);
    other.run(240);
    expectInStep(one, other, 240, 0.5, 2);
}

TEST_F(Rooms, ARestartedServerIsHeardInStepAgain) {
    Server server;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    Listener other(server, steady(), device(100, 0.05), keeping(DELAY));
    for (Listener* const listener : {&one, &other}) {
        listener->run(20);
        Server again;
        again.start = 23.456;
        again.ppm = -60;
        listener->setServer(again);
        listener->run(60);
        EXPECT_EQ(listener->sendClock().jumps(), 0u);
    }
    const Spread settling = apart(one, other, 27, 34);
    const Spread later = apart(one, other, 34, 60);
    EXPECT_LT(settling.most, 2);
    EXPECT_LT(later.median, 0.5);
    EXPECT_LT(offTheDelay(other, DELAY, 34, 60).median, 0.5);
    EXPECT_LT(greatestChange(other, 27), 1);
}

TEST_F(Rooms, AnotherSampleRateIsHeardInStepAgain) {
    Server server;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    Listener other(server, steady(), device(100, 0.05), keeping(DELAY));
    for (Listener* const listener : {&one, &other}) {
        listener->run(20);
        Server again;
        again.start = 20.5;
        again.rate = 44100;
        listener->setServer(again);
        listener->run(60);
    }
    EXPECT_LT(apart(one, other, 24, 31).most, 2);
    EXPECT_LT(apart(one, other, 31, 60).median, 0.5);
    EXPECT_LT(offTheDelay(other, DELAY, 31, 60).median, 0.5);
    EXPECT_LT(greatestChange(other, 24), 1);
}

TEST_F(Rooms, WithALongDelayWhatWasSentBeforeARestartIsStillHeardInStep) {
    const double delay = 10000;
    for (const int rate : {48000, 44100}) {
        const Server server;
        Listener one(server, steady(), device(0, 0.03), keeping(delay));
        Listener other(server, steady(), device(100, 0.05), keeping(delay));
        for (Listener* const listener : {&one, &other}) {
            listener->run(20);
            Server again;
            again.start = 23.456;
            again.rate = rate;
            listener->setServer(again);
            listener->run(60);
            EXPECT_EQ(listener->figures().underruns, 0u);
            EXPECT_EQ(listener->figures().neededMs, 0);
            EXPECT_NEAR(heardPieces(*listener, 20, 30), 125, 2);
            EXPECT_EQ(heardPieces(*listener, 30.1, 33.4), 0);
            EXPECT_NEAR(heardPieces(*listener, 33.5, 60), 331, 3);
            EXPECT_LT(greatestChange(*listener, 13, 29.9), 0.3);
            EXPECT_LT(offTheDelay(*listener, delay, 20, 29.9).most, 0.5);
            EXPECT_LT(offTheDelay(*listener, delay, 44, 60).median, 0.5);
        }
        EXPECT_LT(apart(one, other, 20, 29.9).most, 0.5);
        EXPECT_LT(apart(one, other, 36.5, 44).most, 2);
        EXPECT_LT(apart(one, other, 44, 60).median, 0.5);
    }
}

TEST_F(Rooms, SoundThatWasNotYetDueWhenTheServerRestartedIsHeardAtItsTime) {
    Listener one(Server(), steady(), device(0, 0.03), keeping(10000));
    one.run(5);
    Server again;
    again.start = 6;
    one.setServer(again);
    one.run(30);
    EXPECT_NEAR(heardPieces(one, 10, 15), 62, 2);
    EXPECT_EQ(heardPieces(one, 15.1, 15.9), 0);
    EXPECT_NEAR(heardPieces(one, 16, 30), 175, 2);
    EXPECT_LT(offTheDelay(one, 10000, 10, 14.9).most, 2);
    EXPECT_LT(offTheDelay(one, 10000, 26, 30).most, 0.5);
}

TEST_F(Rooms, CompressedSoundIsHeardBesideRaw) {
    Server raw;
    Server opus;
    raw.ppm = opus.ppm = 80;
    opus.opus = true;
    Listener one(raw, steady(), device(0, 0.03), keeping(DELAY));
    Listener other(opus, steady(), device(100, 0.05), keeping(DELAY));
    one.run(60);
    other.run(60);
    expectInStep(one, other, 60, 0.5, 2);
    EXPECT_LT(greatestChange(other, 3.5), 1);
}

TEST_F(Rooms, BlocksOfTwentyMillisecondsLeaveThemInStep) {
    Server server;
    server.blockFrames = 960;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    Listener other(server, jittery(0.0002, 0.0102), device(30, 0.05), keeping(DELAY));
    one.run(60);
    other.run(60);
    EXPECT_LT(offTheDelay(one, DELAY, 13, 60).median, 0.5);
    expectInStep(one, other, 60, 4, 6);
    EXPECT_LT(greatestChange(one, 3.5), 1);
    EXPECT_LT(greatestChange(other, 3.5), 1);
}

TEST_F(Rooms, OneThatComesLaterIsInStepWithTheFirst) {
    Server server;
    server.ppm = 200;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    one.run(90);
    Device late = device(-100, 0.08);
    late.start = 47.3;
    Listener other(server, steady(), late, keeping(DELAY));
    other.run(90);
    expectInStep(one, other, 90, 0.5, 1);
}

TEST_F(Rooms, ASmallLossOfSoundInTheServerIsFollowedByAll) {
    Server server;
    server.shiftAt = 40;
    server.shift = 0.005;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    one.run(90);
    Device late = device(-100, 0.08);
    late.start = 50;
    Listener other(server, steady(), late, keeping(DELAY));
    other.run(90);
    EXPECT_LT(apart(one, other, 70, 90).most, 0.5);
    EXPECT_LT(greatestChange(other, 54), 0.5);
    EXPECT_LT(offTheDelay(one, DELAY + 5, 70, 90).most, 0.5);
}

TEST_F(Rooms, AServerThatStandsStillForASecondIsFollowedAtOnce) {
    Server server;
    server.shiftAt = 40;
    server.shift = 1.003;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    Listener other(server, jittery(0.0002, 0.0052), device(-100, 0.08), keeping(DELAY));
    one.run(80);
    other.run(80);
    EXPECT_EQ(one.sendClock().jumps(), 1u);
    EXPECT_EQ(other.sendClock().jumps(), 1u);
    EXPECT_LT(apart(one, other, 5, 40).most, 4);
    EXPECT_LT(apart(one, other, 41, 47).median, 4);
    EXPECT_LT(apart(one, other, 47, 80).most, 4);
    EXPECT_LT(offTheDelay(one, DELAY + 1003, 47, 80).most, 2);
    EXPECT_LT(offTheDelay(one, DELAY + 1003, 55, 80).median, 0.5);
    EXPECT_LE(one.figures().underruns, 2u);
    EXPECT_EQ(one.figures().neededMs, 0);
}

TEST_F(Rooms, WithALongDelayWhatWasSentBeforeTheServerStoodStillIsHeardAtItsTime) {
    const double delay = 3000;
    Server server;
    server.shiftAt = 40;
    server.shift = 1.003;
    Listener one(server, steady(), device(0, 0.03), keeping(delay));
    one.run(80);
    EXPECT_NEAR(heardPieces(one, 40, 43), 37, 1);
    EXPECT_LT(offTheDelay(one, delay, 20, 42.9).most, 0.5);
    EXPECT_LT(offTheDelay(one, delay + 1003, 46.5, 80).most, 2);
    EXPECT_LT(offTheDelay(one, delay + 1003, 55, 80).median, 0.5);
    EXPECT_EQ(one.sendClock().jumps(), 1u);
    EXPECT_EQ(one.figures().underruns, 0u);
    EXPECT_EQ(one.figures().neededMs, 0);
}

TEST_F(Rooms, AStallWhoseSoundComesInABurstIsNoJumpOfTheServersClock) {
    const Server server;
    for (const double stall : {1.5, 3.0}) {
        // The sound of the stall comes in 2 ms, or at twice its pace; one packet is late before it.
        for (const double pace : {0.001, 0.5}) {
            const auto stalling = [stall, pace](double sent) {
                const double since = sent - 40;
                const bool early = since > -0.05 && since < -0.04;
                const double late = early ? 0.05 : stall - since * (1 - pace);
                return std::optional(0.0002 + (since < 0 && !early ? 0 : std::max(0.0, late)));
            };
            Listener one(server, stalling, device(0, 0.03), keeping(DELAY));
            one.run(60);
            EXPECT_EQ(one.sendClock().jumps(), 0u) << stall << " s, " << pace;
            EXPECT_EQ(one.figures().neededMs, 0);
            EXPECT_LT(offTheDelay(one, DELAY, 40 + 2 * stall + 3, 60).most, 1);
        }
    }
}

TEST_F(Rooms, ADeviceThatIsOpenedAnewWithMoreLatencyKeepsTheDelay) {
    const Server server;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
    one.run(30);
    Device slower = device(0, 0.12);
    slower.start = 30.2;
    one.setDevice(slower);
    one.run(60);
    EXPECT_LT(offTheDelay(one, DELAY, 33.5, 60).most, 1);
    EXPECT_EQ(one.figures().neededMs, 0);
}

TEST_F(Rooms, ADeviceThatRanDryIsInStepAgainAfterThreeSeconds) {
    const Server server;
    for (const double gap : {0.012, 0.035}) {
        Listener one(server, steady(), device(0, 0.03), keeping(DELAY));
        one.run(30);
        one.underrun(gap);
        one.run(60);
        EXPECT_LT(offTheDelay(one, DELAY, 33.5, 60).most, 1) << gap;
    }
}

TEST_F(Rooms, TheCorrectionIsShownAsItIsPlayed) {
    Server server;
    server.ppm = 300;
    Listener one(server, steady(), device(-300, 0.03), keeping(DELAY));
    one.run(30);
    one.underrun(0.008);
    double most = 0;
    for (double time = 30; time < 33; time += 0.05) {
        one.run(time);
        most = std::max(most, one.figures().correctionPpm.load());
    }
    EXPECT_GT(most, 5000);
    EXPECT_LE(most, 5500);
}

TEST_F(Rooms, AGreaterBufferDoesNotMoveTheSound) {
    vxlisten::PlayoutSettings settings = keeping(DELAY);
    settings.bufferMs = 400;
    settings.bufferChosen = true;
    Listener one(Server(), steady(), device(0, 0.03), settings);
    one.run(30);
    EXPECT_LT(offTheDelay(one, DELAY, 13, 30).most, 0.5);
}

TEST_F(Rooms, TheOffsetPlaysEarlier) {
    const Server server;
    Listener one(server, steady(), device(0, 0.03), keeping(DELAY, 7));
    one.run(30);
    EXPECT_LT(offTheDelay(one, DELAY - 7, 13, 30).most, 0.5);
    EXPECT_NEAR(one.figures().delayMs, DELAY, 0.5);
    EXPECT_NEAR(one.figures().inStepMs, 0, 0.5);
}

TEST_F(Rooms, ADelayThatIsNotPossibleBecomesTheLeastThatIs) {
    const Server server;
    Listener one(server, steady(), device(0, 0.06), keeping(20));
    one.run(60);
    const double needed = one.figures().neededMs;
    EXPECT_GT(needed, 70);
    EXPECT_LT(needed, 100);
    EXPECT_TRUE(one.figures().playing);
    EXPECT_NEAR(one.figures().delayMs, needed, 1);
    EXPECT_NEAR(one.figures().inStepMs, needed - 20, 1);
    EXPECT_LE(one.figures().underruns, 2u);
}

TEST_F(Rooms, JitterThatIsMoreThanTheDelayHoldsRaisesItOnce) {
    const Server server;
    Listener one(server, jittery(0.0002, 0.08), device(0, 0.03), keeping(50));
    one.run(120);
    const auto underruns = one.figures().underruns.load();
    EXPECT_GT(one.figures().neededMs, 80);
    EXPECT_LT(one.figures().neededMs, 160);
    one.run(180);
    EXPECT_LE(one.figures().underruns, underruns + 2);
}

TEST_F(Rooms, ADelayThatHadToBeRaisedIsTriedAgainWithTheNextStream) {
    const Server server;
    Listener one(server, jittery(0.0002, 0.08), device(0, 0.03), keeping(60));
    one.run(60);
    EXPECT_GT(one.figures().neededMs, 80);
    Server again;
    again.start = 61;
    one.setWay(steady());
    one.setServer(again);
    one.run(90);
    EXPECT_EQ(one.figures().neededMs, 0);
    EXPECT_LT(offTheDelay(one, 60, 75, 90).most, 1);
    Device slow = device(0, 0.09);
    slow.start = 90.1;
    one.setDevice(slow);
    one.run(100);
    again.start = 101;
    one.setServer(again);
    one.run(120);
    EXPECT_GT(one.figures().neededMs, 90) << "the next stream is checked, too";
    EXPECT_NEAR(one.figures().delayMs, one.figures().neededMs, 1);
}

TEST_F(Rooms, ADelayThatHadToBeRaisedComesBackWhenTheReasonHasPassed) {
    const Server server;
    Listener one(
        server, [](double sent) { return sent > 40 && sent < 44 ? 0.4 : 0.0002; }, device(0, 0.03),
        keeping(DELAY));
    one.run(60);
    EXPECT_GT(one.figures().neededMs, DELAY);
    one.run(240);
    EXPECT_EQ(one.figures().neededMs, 0);
    EXPECT_NEAR(one.figures().delayMs, DELAY, 0.5);
    EXPECT_LT(offTheDelay(one, DELAY, 200, 240).most, 1);
}

TEST_F(Rooms, ADelayThatHadToBeRaisedStaysWhileTheReasonDoes) {
    const Server server;
    Listener one(
        server, [](double sent) { return sent > 40 ? 0.4 : 0.0002; }, device(0, 0.03),
        keeping(DELAY));
    one.run(60);
    EXPECT_GT(one.figures().neededMs, DELAY);
    one.run(400);
    EXPECT_GT(one.figures().neededMs, DELAY);
    EXPECT_NEAR(heardPieces(one, 50, 400), 4375, 60);
}

TEST_F(Rooms, PatienceWithLateSoundIsAsShortWhereTheDeviceAsksOftener) {
    Server server;
    server.blockFrames = 960;
    Device often = device(0, 0.03);
    often.period = 60;
    Listener one(
        server, [](double sent) { return sent > 40 ? 0.3 : 0.0002; }, often, keeping(DELAY));
    one.run(60);
    const auto again = std::find_if(one.heard().begin(), one.heard().end(),
                                    [](const auto& heard) { return heard.time > 41; });
    ASSERT_NE(again, one.heard().end());
    EXPECT_LT(again->time, 44);
}

TEST_F(Rooms, TenSecondsArePossible) {
    Server server;
    server.ppm = 300;
    Listener one(server, steady(), device(-300, 0.03), keeping(10000));
    one.run(50);
    ASSERT_FALSE(one.heard().empty());
    EXPECT_NEAR(one.heard().front().time, 10.1, 0.3);
    const double byTheServersClock = 10000 * 1.0003;
    EXPECT_LT(offTheDelay(one, byTheServersClock, 20, 50).most, 0.5);
    EXPECT_EQ(one.figures().underruns, 0u);
    EXPECT_EQ(one.figures().neededMs, 0);
}

TEST_F(Rooms, ADeviceWithoutTimeStampsIsTakenAtItsNominalLatency) {
    const Server server;
    for (const double absurd : {-1.0, 0.0, 1e6, std::nan("")}) {
        Device silent = device(0, 0.03);
        silent.stamp = [absurd](double, double) { return absurd; };
        Listener one(server, steady(), silent, keeping(DELAY));
        one.run(30);
        EXPECT_TRUE(one.figures().nominalLatency);
        EXPECT_LT(offTheDelay(one, DELAY, 5, 30).most, 1);
    }
}

TEST_F(Rooms, FirstTimeStampsOfSecondsDoNotMakeTheDelayImpossible) {
    const Server server;
    Device slow = device(0, 0.03);
    slow.stamp = [](double now, double real) { return now < 0.3 ? 2.0 : real; };
    Listener one(server, steady(), slow, keeping(DELAY));
    one.run(20);
    EXPECT_EQ(one.figures().neededMs, 0);
    EXPECT_LT(offTheDelay(one, DELAY, 5, 20).most, 1);
}

TEST_F(Rooms, TimeStampsThatJumpDoNotMakeALoopOfCorrections) {
    const Server server;
    Device wild = device(0, 0.03);
    wild.stamp = [this](double, double) { return between(0.001, 0.4); };
    Listener one(server, steady(), wild, keeping(DELAY));
    one.run(30);
    const std::size_t heard = one.heard().size();
    one.run(60);
    EXPECT_GT(one.heard().size(), heard + 280);
    Device stalls = device(0, 0.03);
    stalls.stamp = [](double now, double real) {
        return now > 20 && now < 22 ? real + 0.008 : real;
    };
    Listener other(server, steady(), stalls, keeping(DELAY));
    other.run(60);
    EXPECT_LT(offTheDelay(other, DELAY, 13, 60).most, 1);
}
