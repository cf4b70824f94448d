#include "listen/console/statistics.h"

#include <gtest/gtest.h>

using vxlisten::Playback;
using vxlisten::Statistics;

namespace {

Statistics listening() {
    Statistics s;
    s.time = 2.5;
    s.server = "10.0.0.1:59010";
    s.connected = true;
    s.sampleRate = 48000;
    s.rateCode = 2;
    s.kilobitsPerSecond = 131.6;
    s.packets = 250;
    s.lost = 3;
    s.peakDbfs = {-12.34, -6.78};
    return s;
}

Playback playing() {
    Playback p;
    p.playing = true;
    p.bufferMs = 41.4;
    p.concealed = 4;
    p.skipped = 5;
    p.stretched = 7;
    p.underruns = 6;
    return p;
}

}  // namespace

TEST(StatisticsText, LineOfAClientThatPlaysTellsOfItsBuffer) {
    Statistics s = listening();
    EXPECT_EQ(
        toLine(s),
        "connected 10.0.0.1:59010 48000 Hz opus-128 reliable 132 kbit/s peak -6.8 dBFS lost 3");
    s.playback = playing();
    EXPECT_EQ(
        toLine(s),
        "connected 10.0.0.1:59010 48000 Hz opus-128 reliable 132 kbit/s peak -6.8 dBFS lost 3 "
        "concealed 4 underruns 6 buffer 41 ms");
}

TEST(StatisticsText, TheDelayIsToldOnceItIsKnownAndTheStepWhereOneIsKept) {
    Statistics s = listening();
    s.playback = playing();
    EXPECT_NE(toJson(s, "stats").find(R"("delay_ms":null,"in_step_ms":null)"), std::string::npos);
    s.playback->delayMs = 66.666;
    EXPECT_NE(toLine(s).find(" buffer 41 ms delay 66.7 ms"), std::string::npos) << toLine(s);
    EXPECT_NE(toJson(s, "stats").find(R"("delay_ms":66.67,"in_step_ms":null)"), std::string::npos);
    s.playback->inStepMs = -0.25;
    EXPECT_NE(toLine(s).find(" delay 66.7 ms in step -0.2 ms"), std::string::npos) << toLine(s);
    EXPECT_NE(toJson(s, "stats").find(R"("in_step_ms":-0.25)"), std::string::npos);
    s.playback->inStepMs = -0.004;
    EXPECT_NE(toJson(s, "stats").find(R"("in_step_ms":0.00)"), std::string::npos);
}

TEST(StatisticsText, LineSaysWaitingUntilTheServerAnswers) {
    Statistics s = listening();
    s.connected = false;
    EXPECT_EQ(toLine(s).rfind("waiting 10.0.0.1:59010 ", 0), 0U) << toLine(s);
}

TEST(StatisticsText, ReportTellsWhatWasConcealedOnlyOfAClientThatPlayed) {
    Statistics s = listening();
    EXPECT_EQ(toReport(s).find("concealed"), std::string::npos);
    s.playback = playing();
    const std::string report = toReport(s);
    EXPECT_NE(report.find("\nconcealed: 4\nskipped: 5\nstretched: 7\nunderruns: 6\n"),
              std::string::npos)
        << report;
    EXPECT_NE(report.find("lost: 3\n"), std::string::npos) << report;
}

TEST(StatisticsText, JsonEscapesWhatCouldSteerATerminalAndPassesOtherScripts) {
    Statistics s = listening();
    s.hostName = "\x1b[2J \n\x7f \"\\ caf\xc3\xa9 \xe2\x82\xac";
    EXPECT_NE(toJson(s, "stats")
                  .find("\"host\":\"\\u001b[2J \\u000a\\u007f \\\"\\\\ "
                        "caf\xc3\xa9 \xe2\x82\xac\""),
              std::string::npos)
        << toJson(s, "stats");
    EXPECT_NE(toJson(s, "stats").find(R"("playback":null)"), std::string::npos);
}

TEST(StatisticsText, RatesAreNamedAsOnTheCommandLine) {
    EXPECT_EQ(vxlisten::rateName(0), "raw");
    EXPECT_EQ(vxlisten::rateName(5), "opus-20");
    EXPECT_EQ(vxlisten::rateName(6), "code-6");
}
