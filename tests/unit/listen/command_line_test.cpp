#include "listen/command_line.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "listen/retry_pause.h"

using vxlisten::CommandLine;

namespace {

CommandLine read(std::vector<const char*> words) {
    words.insert(words.begin(), "velantrix-listen");
    return vxlisten::readCommandLine(static_cast<int>(words.size()), words.data());
}

}  // namespace

TEST(CommandLine, DefaultsAreReliableRawAndPlayed) {
    const auto options = read({"box"}).options;
    EXPECT_EQ(options.server.host, "box");
    EXPECT_EQ(options.server.port, 59010);
    EXPECT_EQ(options.choice.rateCode, 0u);
    EXPECT_TRUE(options.choice.reliable);
    EXPECT_TRUE(options.choice.multiClient);
    EXPECT_FALSE(options.choice.name.empty());
    EXPECT_TRUE(options.play);
    EXPECT_EQ(options.playout.bufferMs, 40);
    EXPECT_FALSE(options.playout.bufferChosen);
    EXPECT_FALSE(options.playout.delayMs);
}

TEST(CommandLine, PortComesFromEitherPlace) {
    EXPECT_EQ(read({"box:7000"}).options.server.port, 7000);
    EXPECT_EQ(read({"box:7000"}).options.server.host, "box");
    EXPECT_EQ(read({"box", "--port", "7001"}).options.server.port, 7001);
    EXPECT_EQ(read({"box:7000", "--port", "7001"}).status, vxlisten::STATUS_USAGE);
}

TEST(CommandLine, RateNamesBecomeRateCodes) {
    EXPECT_EQ(read({"box", "--rate", "64"}).options.choice.rateCode, 1u);
    EXPECT_EQ(read({"box", "--rate", "128"}).options.choice.rateCode, 2u);
    EXPECT_EQ(read({"box", "--rate", "256"}).options.choice.rateCode, 3u);
    EXPECT_EQ(read({"box", "--rate", "20"}).options.choice.rateCode, 5u);
}

TEST(CommandLine, StatsTakesTheWordAfterItAsTheHost) {
    const auto plain = read({"--stats", "box"});
    EXPECT_EQ(plain.options.server.host, "box");
    EXPECT_EQ(plain.options.stats, vxlisten::StatsStyle::Lines);
    EXPECT_EQ(read({"--stats=json", "box"}).options.stats, vxlisten::StatsStyle::Json);
}

TEST(CommandLine, StdoutDoesNotPlay) {
    EXPECT_FALSE(read({"box", "--stdout"}).options.play);
}

TEST(CommandLine, ADelayMayHaveFractionsAndAnOffsetEitherSign) {
    EXPECT_EQ(read({"box", "--delay", "0.5"}).options.playout.delayMs, 0.5);
    EXPECT_EQ(read({"box", "--delay=10000"}).options.playout.delayMs, 10000);
    EXPECT_EQ(read({"box", "--delay", "3e2"}).options.playout.delayMs, 300);
    EXPECT_EQ(read({"box", "--delay=9", "--offset", "-1000"}).options.playout.offsetMs, -1000);
    EXPECT_EQ(read({"box", "--delay=9", "--offset=12.5"}).options.playout.offsetMs, 12.5);
    EXPECT_TRUE(read({"box", "--buffer", "40"}).options.playout.bufferChosen);
}

TEST(CommandLine, ADelayThatIsNoNumberOfMillisecondsIsOneSentence) {
    for (const char* const word : {"", "nan", "inf", "300ms", "0", "-1", "10001", "1e5", " 300",
                                   "300 ", "0x10", "1,5", "zwei"}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(read({"box", "--delay", word}).status, vxlisten::STATUS_USAGE) << word;
        const std::string told = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << told;
    }
    for (const char* const word : {"", "nan", "-1001", "1000.1", "5ms"}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(read({"box", "--delay", "9", "--offset", word}).status, vxlisten::STATUS_USAGE)
            << word;
        const std::string told = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << told;
    }
}

TEST(CommandLine, ADelayOrAnOffsetThatWouldMoveNothingIsRefused) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(read({"box", "--offset", "5"}).status, vxlisten::STATUS_USAGE);
    EXPECT_EQ(read({"box", "--no-play", "--delay", "9"}).status, vxlisten::STATUS_USAGE);
    EXPECT_EQ(read({"box", "--stdout", "--delay", "9", "--offset", "5"}).status,
              vxlisten::STATUS_USAGE);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "velantrix-listen: --offset needs --delay\n"
              "velantrix-listen: --delay cannot be used with --no-play or --stdout\n"
              "velantrix-listen: --delay cannot be used with --no-play or --stdout\n");
}

TEST(CommandLine, NonsenseIsAUsageError) {
    const std::vector<std::vector<const char*>> nonsense = {{"box", "--rate", "65"},
                                                            {"box", "--port", "0"},
                                                            {"box", "--port", "65536"},
                                                            {"box:", "--rate", "64"},
                                                            {":7000"},
                                                            {"box:port"},
                                                            {"box", "--buffer", "9"},
                                                            {"box", "--buffer", "501"},
                                                            {"box", "--buffer", "nan"},
                                                            {"box", "--buffer", ""},
                                                            {"box", "--seconds", "0"},
                                                            {"box", "--seconds", "nan"},
                                                            {"box", "--record", "x.mp3"},
                                                            {"box", "--stats=xml"},
                                                            {"box", "--what"},
                                                            {"box", "box2"},
                                                            {"box", "--rate"},
                                                            {"box", "--no-play", "--device", "x"}};
    for (const auto& words : nonsense) {
        EXPECT_EQ(read(words).status, vxlisten::STATUS_USAGE) << words[1 % words.size()];
    }
}

TEST(CommandLine, AnAddressOfTheOtherKindIsRefusedWithTheReason) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(read({"fe80::1"}).status, vxlisten::STATUS_USAGE);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("only names and IPv4 addresses"),
              std::string::npos);
}

TEST(CommandLine, HelpAndVersionEndWell) {
    EXPECT_EQ(read({"--help"}).status, vxlisten::STATUS_OK);
    EXPECT_EQ(read({"--version"}).status, vxlisten::STATUS_OK);
    EXPECT_FALSE(read({"box"}).status);
}

TEST(RetryPause, GrowsToFiveSecondsAndStartsOver) {
    vxlisten::RetryPause pause;
    std::vector<std::int64_t> pauses;
    for (int i = 0; i < 7; ++i) {
        pauses.push_back(pause.next());
    }
    EXPECT_EQ(pauses, (std::vector<std::int64_t>{250, 500, 1000, 2000, 4000, 5000, 5000}));
    pause.reset();
    EXPECT_EQ(pause.next(), 250);
}
