#include "listen/device/sound_keeper.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include <gtest/gtest.h>

#include "listen/background.h"
#include "listen/clock.h"
#include "listen/device/priority.h"
#include "tests/support/fake_portaudio.h"
#include "tests/support/waiting.h"

using vxlisten::MILLISECOND;
using vxlisten::SECOND;
using vxlisten::SoundKeeper;

namespace {

constexpr const char* GONE = "the output device is gone, trying to reopen it";
constexpr const char* AGAIN = "playing again";

class SoundKeeperTest : public testing::Test {
  protected:
    SoundKeeperTest() { device_.defaultDevice = 0; }
    ~SoundKeeperTest() override {
        keeper_.reset();
        EXPECT_FALSE(device_.streamOpen);
    }

    void openKeeper() {
        keeper_ = std::make_unique<SoundKeeper>("", settings_);
        ASSERT_TRUE(keeper_->open(now_));
        ASSERT_EQ(device_.opened, 1);
    }

    /// Looks after the device for virtual `time`, giving the background real time to follow.
    /// Returns the messages for the user.
    std::vector<std::string> watch(std::int64_t time) {
        std::vector<std::string> told;
        for (const std::int64_t end = now_ + time; now_ < end; now_ += 100 * MILLISECOND) {
            const std::string news = keeper_->watch(now_);
            if (!news.empty()) {
                told.push_back(news);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
        return told;
    }

    /// As watch(), until a message begins with `sentence`, or for very long.
    std::vector<std::string> watchUntilTold(const std::string& sentence) {
        std::vector<std::string> told;
        for (int i = 0; i < 5000; ++i) {
            const auto more = watch(100 * MILLISECOND);
            told.insert(told.end(), more.begin(), more.end());
            if (!told.empty() && told.back().rfind(sentence, 0) == 0) {
                break;
            }
        }
        return told;
    }

    /// An underrun of the device a second, so many; the last one is not yet noticed.
    void runDry(int times) {
        for (int i = 0; i < times; ++i) {
            EXPECT_TRUE(i == 0 || watch(SECOND).empty());
            device_.ask(true);
        }
    }

    /// 10 ms of silence that are sent now and come `ahead` microseconds later.
    void push(vxlisten::Join join, double ahead) {
        const std::vector<std::int16_t> silence(480 * 2);
        keeper_->queue()->push({silence.data(), 480, 48000, join, false}, now_,
                               {static_cast<double>(now_), 1e6 / 48000, ahead});
    }

    /// Plays packets in real time that are sent now and come `ahead` microseconds later, until this
    /// many messages were returned or the time is over.
    std::vector<std::string> play(vxlisten::Join join, double ahead, std::size_t sentences) {
        std::vector<std::string> told;
        for (int i = 0; i < 1000 && told.size() < sentences; ++i) {
            now_ = vxlisten::steadyNow();
            push(join, ahead);
            join = vxlisten::Join::Continues;
            device_.ask(false);
            const std::string news = keeper_->watch(now_);
            if (!news.empty()) {
                told.push_back(news);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return told;
    }

    FakePortAudio& device_ = freshFakePortAudio();
    vxlisten::PlayoutSettings settings_;
    std::unique_ptr<SoundKeeper> keeper_;
    std::int64_t now_ = vxlisten::steadyNow();
};

}  // namespace

TEST_F(SoundKeeperTest, AMissingDeviceIsAnErrorAtTheStart) {
    device_.outputPresent = false;
    SoundKeeper keeper("", settings_);
    EXPECT_FALSE(keeper.open(now_));
    EXPECT_EQ(keeper.error(), "cannot play sound: there is no output device");
}

TEST_F(SoundKeeperTest, AGoodDeviceIsLeftAlone) {
    openKeeper();
    EXPECT_TRUE(watch(5 * SECOND).empty());
    EXPECT_EQ(device_.opened, 1);
}

TEST_F(SoundKeeperTest, ADeviceThatGoesIsOpenedAgainWithOneSentenceEach) {
    openKeeper();
    device_.active = false;
    EXPECT_EQ(watchUntilTold(AGAIN), std::vector<std::string>({GONE, AGAIN}));
    EXPECT_EQ(device_.opened, 2);
}

TEST_F(SoundKeeperTest, WhileTheDeviceIsAwayThePausesGrow) {
    openKeeper();
    device_.outputPresent = false;
    device_.active = false;
    EXPECT_EQ(watch(30 * SECOND), std::vector<std::string>({GONE}));
    EXPECT_EQ(keeper_->queue(), nullptr);
    EXPECT_FALSE(keeper_->figures().device);
    EXPECT_FALSE(keeper_->figures().playing);
    EXPECT_LE(device_.tries, 12) << "with equal pauses there would be 120";
    device_.outputPresent = true;
    EXPECT_EQ(watchUntilTold(AGAIN), std::vector<std::string>({AGAIN}));
    EXPECT_EQ(device_.opened, 2);
}

TEST_F(SoundKeeperTest, ADeviceThatAsksForNothingForLongIsOpenedAgain) {
    openKeeper();
    EXPECT_TRUE(watch(9 * SECOND).empty());
    EXPECT_EQ(watchUntilTold(AGAIN), std::vector<std::string>({GONE, AGAIN}));
}

TEST_F(SoundKeeperTest, ADeviceThatRunsDryAgainAndAgainIsAskedForMoreLatency) {
    openKeeper();
    const int first = vxlisten::realTimeAllowed() ? 40 : 80;
    EXPECT_DOUBLE_EQ(device_.outputLatency, first / 1000.0);
    watch(4 * SECOND);
    runDry(3);
    EXPECT_EQ(keeper_->figures().underruns, 3u);
    EXPECT_EQ(keeper_->figures().deviceUnderruns, 3u);
    const auto told = watchUntilTold("repeated underruns");
    ASSERT_EQ(told.size(), 1u);
    EXPECT_NE(told[0].find("requesting " + std::to_string(2 * first) + " ms of latency"),
              std::string::npos)
        << told[0];
    waitUntil([&] { return device_.opened >= 2; });
    EXPECT_DOUBLE_EQ(device_.outputLatency, 2 * first / 1000.0);
    EXPECT_TRUE(watch(SECOND).empty());
    EXPECT_EQ(keeper_->figures().underruns, 3u) << "counts go on over the openings";
}

TEST_F(SoundKeeperTest, ADeviceThatIsAwayWhenMoreLatencyIsWantedIsToldOf) {
    openKeeper();
    watch(4 * SECOND);
    runDry(3);
    device_.outputPresent = false;
    const auto told = watchUntilTold(GONE);
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[1], GONE);
    EXPECT_TRUE(watch(5 * SECOND).empty()) << "once is enough";
    device_.outputPresent = true;
    EXPECT_EQ(watchUntilTold(AGAIN), std::vector<std::string>({AGAIN}));
}

TEST_F(SoundKeeperTest, ALongDelayAsksTheDeviceForMoreLatencyThanItMayNeed) {
    settings_.delayMs = 300;
    openKeeper();
    EXPECT_DOUBLE_EQ(device_.outputLatency, 0.08);
}

TEST_F(SoundKeeperTest, ADelayWithoutRoomForMoreLatencyIsKeptUnlessTheDeviceRunsDryAllTheTime) {
    settings_.delayMs = 1;
    openKeeper();
    watch(4 * SECOND);
    runDry(9);
    EXPECT_TRUE(watch(200 * MILLISECOND).empty());
    EXPECT_EQ(device_.opened, 1);
    watch(SECOND);
    device_.ask(true);
    EXPECT_EQ(watchUntilTold("repeated underruns").size(), 1u);
}

TEST_F(SoundKeeperTest, WithADelayTheSoundThatWaitsOutlivesTheDevice) {
    settings_.delayMs = 5000;
    openKeeper();
    push(vxlisten::Join::NewStream, 0);
    device_.active = false;
    device_.outputPresent = false;
    EXPECT_EQ(watchUntilTold(GONE), std::vector<std::string>({GONE}));
    push(vxlisten::Join::Continues, 0);
    device_.active = device_.outputPresent = true;
    EXPECT_EQ(watchUntilTold(AGAIN), std::vector<std::string>({AGAIN}));
    device_.ask(false);
    EXPECT_EQ(keeper_->queue()->size(), 2u);
    EXPECT_DOUBLE_EQ(keeper_->figures().bufferMs, 20);
}

TEST_F(SoundKeeperTest, WhatKeepsItFromTheChosenDelayIsToldOnce) {
    settings_.delayMs = 1;
    openKeeper();
    // The device gives no time stamps; it is heard in real time.
    const std::vector<std::string> told = play(vxlisten::Join::Continues, 0, 2);
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[0].rfind("a delay of 1 ms is too short, using ", 0), 0u) << told[0];
    EXPECT_EQ(told[1].rfind("the output device does not report its latency, assuming ", 0), 0u)
        << told[1];
    EXPECT_GT(keeper_->figures().inStepMs.value_or(0), 40);
    EXPECT_TRUE(watch(SECOND).empty());
}

TEST_F(SoundKeeperTest, ADelayThatGetsClearlyLongerIsToldAgain) {
    settings_.delayMs = 1;
    openKeeper();
    ASSERT_EQ(play(vxlisten::Join::Continues, 0, 2).size(), 2u);
    const std::vector<std::string> told = play(vxlisten::Join::NewStream, 300'000, 1);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].rfind("a delay of 1 ms is too short, using ", 0), 0u) << told[0];
    EXPECT_TRUE(watch(SECOND).empty());
}

TEST_F(SoundKeeperTest, ASoundLibraryThatHangsDoesNotHoldUpTheEnd) {
    std::FILE* const usual = stderr;
    openKeeper();
    EXPECT_FALSE(vxlisten::workAbandoned());
    device_.closeHangs = true;
    const std::int64_t begin = vxlisten::steadyNow();
    keeper_.reset();
    EXPECT_LT(vxlisten::steadyNow() - begin, 20 * SECOND);
    EXPECT_TRUE(vxlisten::workAbandoned());
    EXPECT_NE(stderr, usual) << "what the library writes to must stay";
    EXPECT_GE(std::fputs("", stderr), 0);
    stderr = usual;
    device_.closeHangs = false;
    waitUntil([&] { return !device_.streamOpen; });
    // The background still has PortAudio to end before the next test begins.
    waitUntil([&] { return !device_.initialised; });
    EXPECT_FALSE(device_.initialised);
}
