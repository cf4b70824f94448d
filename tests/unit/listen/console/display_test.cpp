#include "listen/console/display.h"

#include <gtest/gtest.h>

#include "listen/audio/level_meter.h"
#include "listen/clock.h"

using vxlisten::layOutDisplay;
using vxlisten::meterBar;
using vxlisten::Statistics;

namespace {

Statistics busy() {
    Statistics s;
    s.time = 3725.4;
    s.server = "192.168.100.200:59010";
    s.hostName = "living-room.example.net";
    s.connected = true;
    s.sampleRate = 48000;
    s.rateCode = 3;
    s.kilobitsPerSecond = 268.2;
    s.roundTripMs = 12;
    s.lost = 123456;
    s.peakDbfs = {-12.3, -0.5};
    s.playback.emplace();
    s.playback->playing = true;
    s.playback->bufferMs = 41;
    s.playback->targetMs = 40;
    s.playback->concealed = 98765;
    s.playback->underruns = 4321;
    s.playback->delayMs = 400.12;
    s.playback->inStepMs = -0.34;
    return s;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

}  // namespace

TEST(Display, NoLineReachesTheLastColumnAtAnyWidth) {
    for (std::size_t columns = 20; columns <= 200; ++columns) {
        for (const std::string& line : layOutDisplay(busy(), {-10, 0}, columns)) {
            EXPECT_LT(line.size(), columns) << line;
        }
    }
}

TEST(Display, EveryFigureShowsAt80AndAt40Columns) {
    for (const std::size_t columns : {80U, 40U}) {
        const std::string text = joined(layOutDisplay(busy(), {-10, 0}, columns));
        for (const char* part :
             {"living-room.example.net", "192.168.100.200:59010", "01:02:05", "playing",
              "-12.3 dBFS", "-0.5 dBFS", "48000 Hz", "opus-256", "reliable", "268 kbit/s",
              "RTT 12 ms", "buffer 41/40 ms", "lost 123456", "concealed 98765", "underruns 4321",
              "delay 400.1 ms in step -0.3 ms"}) {
            EXPECT_NE(text.find(part), std::string::npos) << columns << ": " << part;
        }
    }
}

TEST(Display, NamesCannotSteerTheTerminal) {
    Statistics s = busy();
    s.hostName = "evil\x1b[2J\n";
    EXPECT_EQ(joined(layOutDisplay(s, {-10, 0}, 80)).find('\x1b'), std::string::npos);
}

TEST(Display, NamesInOtherScriptsShowAndAreCutBetweenCharacters) {
    Statistics s = busy();
    s.hostName = "caf\xc3\xa9.example";
    EXPECT_NE(joined(layOutDisplay(s, {-10, 0}, 80)).find(s.hostName), std::string::npos);
    s.hostName = "seventeen.letters\xc3\xa9\xe2\x82\xac";
    for (const auto& [columns, name] :
         {std::pair{20U, "seventeen.letters\xc3\xa9"}, std::pair{22U, "seventeen.letters\xc3\xa9"},
          std::pair{23U, "seventeen.letters\xc3\xa9\xe2\x82\xac"}}) {
        EXPECT_EQ(layOutDisplay(s, {-10, 0}, columns)[0], name);
    }
}

TEST(Display, MeterRunsFromMinus60ToZero) {
    EXPECT_EQ(meterBar(-120, -120, 10), "----------");
    EXPECT_EQ(meterBar(-30, -120, 10), "#####-----");
    EXPECT_EQ(meterBar(0, -120, 10), "##########");
    EXPECT_EQ(meterBar(6, -120, 10), "##########");
    EXPECT_EQ(meterBar(-30, -12, 10), "#####--|--");
}

TEST(Display, RedrawGoesBackOverTheLinesBeforeAndClearsTheRest) {
    EXPECT_EQ(vxlisten::redraw({"a"}, 0), "\ra\x1b[K\n\x1b[J");
    EXPECT_EQ(vxlisten::redraw({"a", "b"}, 3), "\x1b[3A\ra\x1b[K\nb\x1b[K\n\x1b[J");
}

TEST(PeakHold, HoldsThenSinks) {
    vxlisten::PeakHold hold;
    EXPECT_EQ(hold.update(-6, 0), -6);
    EXPECT_EQ(hold.update(-40, 1 * vxlisten::SECOND), -6);
    EXPECT_EQ(hold.update(-40, 2 * vxlisten::SECOND), -26);
    EXPECT_EQ(hold.update(-40, 4 * vxlisten::SECOND), -40);
    EXPECT_EQ(hold.update(-3, 5 * vxlisten::SECOND), -3);
}

TEST(Display, ADeviceThatIsAwayIsSaid) {
    Statistics s = busy();
    s.playback->playing = false;
    s.playback->device = false;
    EXPECT_NE(joined(layOutDisplay(s, s.peakDbfs, 80)).find("no output device"), std::string::npos);
}
