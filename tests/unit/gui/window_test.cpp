// The window's title, sound status, address and client.

#include <string>

#include <QLabel>
#include <QLineEdit>
#include <QTimer>

#include "app/base/command_line.h"
#include "gui/VelantrixServer.h"
#include "gui_test.h"
#include "stream/capture_rate.h"

struct WindowTestAccess {
    static const QTimer& timer(const VelantrixServer& window) { return window.statusTimer; }
};

namespace {

constexpr const char* FAILED = "<font color=#FF4000>Audio capture failed</font>";
constexpr const char* RUNNING_48 = "<font color=#00A000>Audio capture running at 48 kHz</font>";
constexpr const char* RUNNING_44 = "<font color=#00A000>Audio capture running at 44.1 kHz</font>";

class Window : public ::testing::Test {
  protected:
    QLineEdit& status() { return *window.findChild<QLineEdit*>("lineEditClientStatus"); }
    QLineEdit& address() { return *window.findChild<QLineEdit*>("lineEditServerAddress"); }
    QLabel& sound() { return *window.findChild<QLabel*>("labelAudioStatus"); }

    void tick() { window.handleTimerTimeout(); }

    std::string report(int count, const char* name) {
        window.SetClientStatus(count, name, true);
        return status().text().toStdString();
    }

    /// As report(), but as the capture thread does it.
    std::string reportFromWorker(int count, const char* name) {
        const Worker worker([this, count, name] { window.SetClientStatus(count, name, false); });
        EXPECT_TRUE(spinUntil([&worker] { return worker.done(); }));
        return status().text().toStdString();
    }

    VelantrixServer window{nullptr};
};

using WindowStatus = Window;
using WindowDeathTest = Window;  // Its statics exist once per process.

TEST_F(Window, BeforeTheFirstTickItKnowsNoSoundAndNoClient) {
    EXPECT_EQ(window.windowTitle().toStdString(), "Velantrix Server  v" VELANTRIX_VERSION "    ");
    EXPECT_EQ(status().text(), "Disconnected");
    EXPECT_EQ(sound().text(), "");
    EXPECT_EQ(address().text(), VelantrixServerNoGUI::GetIPAddress());
}

TEST_F(Window, AddressIsTheBindAddress) {
    const char* const arguments[] = {"server", "-b", "192.168.77.50"};
    scanArguments(3, arguments);
    window.UpdateState();
    EXPECT_EQ(address().text(), "192.168.77.50");
    scanArguments(1, arguments);
}

TEST_F(WindowDeathTest, TitleLosesTheVersionAtTheSecondTick) {
    EXPECT_IN_FRESH_PROCESS({
        tick();
        EXPECT_EQ(window.windowTitle().toStdString(),
                  "Velantrix Server  v" VELANTRIX_VERSION "    ");
        tick();
        EXPECT_EQ(window.windowTitle().toStdString(), "Velantrix Server");
        window.setWindowTitle("another");
        tick();
        EXPECT_EQ(window.windowTitle().toStdString(), "another");
    });
}

TEST_F(WindowDeathTest, AddressIsRefreshedAtTicks1And11And21) {
    EXPECT_IN_FRESH_PROCESS({
        for (int number = 1; number <= 32; ++number) {
            address().setText("old");
            tick();
            EXPECT_EQ(address().text() != "old", number % 10 == 1) << number;
        }
    });
}

TEST_F(WindowDeathTest, FirstTickWithSoundSaysSo) {
    EXPECT_IN_FRESH_PROCESS({
        window.SetAudioCaptureActive();
        tick();
        EXPECT_EQ(sound().text().toStdString(), RUNNING_44);
    });
}

TEST_F(WindowDeathTest, SoundLabelIsRewrittenOnlyWhenTheStateChanges) {
    EXPECT_IN_FRESH_PROCESS({
        tick();
        EXPECT_EQ(sound().text().toStdString(), FAILED);
        sound().setText("untouched");
        tick();
        EXPECT_EQ(sound().text(), "untouched");

        window.SetAudioCaptureActive();
        tick();
        EXPECT_EQ(sound().text().toStdString(), RUNNING_44);
        sound().setText("untouched");
        vxOptionAltRate.store(true);
        window.SetAudioCaptureActive();
        tick();
        EXPECT_EQ(sound().text(), "untouched");

        tick();
        EXPECT_EQ(sound().text().toStdString(), FAILED);
        window.SetAudioCaptureActive();
        tick();
        EXPECT_EQ(sound().text().toStdString(), RUNNING_48);
    });
}

TEST_F(Window, TimerIsSetToOneSecond) {
    const QTimer& timer = WindowTestAccess::timer(window);
    EXPECT_TRUE(timer.isActive());
    EXPECT_FALSE(timer.isSingleShot());
    EXPECT_EQ(timer.interval(), 1000);
}

TEST_F(WindowDeathTest, TimerTicksByItself) {
    EXPECT_IN_FRESH_PROCESS({
        EXPECT_TRUE(spinUntil([this] { return sound().text() == FAILED; }));
        EXPECT_EQ(window.windowTitle().toStdString(),
                  "Velantrix Server  v" VELANTRIX_VERSION "    ");
        EXPECT_TRUE(spinUntil([this] { return window.windowTitle() == "Velantrix Server"; }));
    });
}

TEST_F(WindowStatus, NamedClientThenUnnamedSecondForgetsTheName) {
    EXPECT_EQ(report(1, "P"), "Connected to P");
    EXPECT_EQ(report(2, ""), "Connected (2)");
    EXPECT_EQ(report(1, nullptr), "Connected");
}

TEST_F(WindowStatus, NameFromAWorkerIsKeptAndForgottenAsADirectOne) {
    EXPECT_EQ(reportFromWorker(1, "P"), "Connected to P");
    EXPECT_EQ(reportFromWorker(2, nullptr), "Connected to P (2)");
    EXPECT_EQ(report(1, nullptr), "Connected to P");
    EXPECT_EQ(reportFromWorker(2, ""), "Connected (2)");
    EXPECT_EQ(report(1, "Q"), "Connected to Q");
    EXPECT_EQ(reportFromWorker(1, nullptr), "Connected to Q");
    EXPECT_EQ(reportFromWorker(0, nullptr), "Disconnected");
    EXPECT_EQ(reportFromWorker(1, nullptr), "Connected");
}

TEST_F(WindowStatus, NameIsKeptWhenAnotherClientLeaves) {
    EXPECT_EQ(report(2, "A"), "Connected to A (2)");
    EXPECT_EQ(report(1, nullptr), "Connected to A");
    EXPECT_EQ(report(3, nullptr), "Connected to A (3)");
}

TEST_F(WindowStatus, LastNameWins) {
    EXPECT_EQ(report(2, "A"), "Connected to A (2)");
    EXPECT_EQ(report(2, "B"), "Connected to B (2)");
    EXPECT_EQ(report(1, nullptr), "Connected to B");
}

TEST_F(WindowStatus, NoClientClearsTheName) {
    EXPECT_EQ(report(1, "A"), "Connected to A");
    EXPECT_EQ(report(0, nullptr), "Disconnected");
    EXPECT_EQ(report(1, nullptr), "Connected");
    EXPECT_EQ(report(1, "A"), "Connected to A");
    EXPECT_EQ(report(-1, "B"), "Disconnected");
    EXPECT_EQ(report(1, nullptr), "Connected");
}

TEST_F(WindowStatus, ColourTellsTheState) {
    const auto colours = [this](QPalette::ColorGroup group) {
        return status().palette().color(group, QPalette::Text);
    };
    for (const auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
        report(0, "");
        EXPECT_EQ(colours(group), QColor(255, 64, 0));
        report(1, "");
        EXPECT_EQ(colours(group), QColor(0, 160, 0));
        EXPECT_EQ(status().palette().color(group, QPalette::Base),
                  QPalette().color(group, QPalette::Base));
    }
}

TEST_F(WindowStatus, ClientNamedDisconnectedIsStillConnected) {
    EXPECT_EQ(report(1, "Disconnected"), "Connected to Disconnected");
    EXPECT_EQ(status().palette().color(QPalette::Text), QColor(0, 160, 0));
    window.handleSetClientStatus("disconnected");
    EXPECT_EQ(status().palette().color(QPalette::Text), QColor(0, 160, 0));
    window.handleSetClientStatus("Disconnected");
    EXPECT_EQ(status().palette().color(QPalette::Text), QColor(255, 64, 0));
}

TEST_F(WindowStatus, NameIsUtf8) {
    report(1,
           "K\xC3\xBC"
           "che \xF0\x9F\x8E\xB5");
    EXPECT_EQ(status().text(), QString::fromUtf16(u"Connected to K\u00FCche \U0001F3B5"));
}

TEST_F(WindowStatus, InvalidBytesBecomeReplacementCharacters) {
    report(1,
           "a\xFF"
           "b\xC3");
    EXPECT_EQ(status().text(), QString::fromUtf16(u"Connected to a\uFFFDb\uFFFD"));
    report(2,
           "\xED\xA0\x80"
           "x\xC0\x80");
    EXPECT_TRUE(status().text().startsWith(QString::fromUtf16(u"Connected to \uFFFD")));
    EXPECT_TRUE(status().text().contains(QString::fromUtf16(u"x\uFFFD")));
}

TEST_F(WindowStatus, FormatCharactersInANameAreText) {
    EXPECT_EQ(report(2, "%s%n%d"), "Connected to %s%n%d (2)");
}

TEST_F(WindowStatus, LongestNameIsShownAndKeptWhole) {
    const std::string name(255, 'n');
    EXPECT_EQ(report(2147483647, name.c_str()), "Connected to " + name + " (2147483647)");
    EXPECT_EQ(report(1, nullptr), "Connected to " + name);
}

TEST_F(WindowStatus, OverlongNameIsKeptAt255Bytes) {
    EXPECT_EQ(report(1, std::string(300, 'n').c_str()), "Connected to " + std::string(300, 'n'));
    EXPECT_EQ(report(1, nullptr), "Connected to " + std::string(255, 'n'));
}

TEST_F(WindowStatus, ReportFromAWorkerWaitsForTheMainThread) {
    const Worker worker([this] { window.SetClientStatus(1, "Phone", false); });
    QThread::msleep(100);
    EXPECT_FALSE(worker.done());
    EXPECT_EQ(status().text(), "Disconnected");
    EXPECT_TRUE(spinUntil([&worker] { return worker.done(); }));
    EXPECT_EQ(status().text(), "Connected to Phone");
}

}  // namespace
