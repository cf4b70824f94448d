// The window's half of the version check, with the boxes answered as a user would.

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <QApplication>
#include <QLockFile>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>

#include "gui/VelantrixServer.h"
#include "tests/support/child_run.h"
#include "tests/support/waiting.h"
#include "web_if_fixture.h"

namespace {

constexpr int MINIMIZED_STEP_MS = 2000;
constexpr int POLL_MS = 10;
constexpr const char* QUESTION =
    "A new version of Velantrix Server is available. Would you like to download it now?";

struct SeenBox {
    std::string title;
    std::string text;
    QMessageBox::Icon icon;
    QMessageBox::StandardButtons buttons;
    bool yesIsDefault;
};

/// The user's action in a box.
using Answer = std::function<void(QMessageBox& box)>;

Answer press(QMessageBox::StandardButton button) {
    return [button](QMessageBox& box) { box.button(button)->click(); };
}

/// Answers boxes while the event loop runs: the first as given, the others with OK.
class User {
  public:
    explicit User(Answer toQuestion) : answer(std::move(toQuestion)) {
        QObject::connect(&timer, &QTimer::timeout, &timer, [this] { lookForBox(); });
        timer.start(POLL_MS);
    }

    std::vector<SeenBox> boxes;

  private:
    QTimer timer;
    Answer answer;

    void lookForBox() {
        auto* const box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr) {
            return;
        }
        boxes.push_back({box->windowTitle().toStdString(), box->text().toStdString(), box->icon(),
                         box->standardButtons(),
                         box->defaultButton() != nullptr &&
                             box->defaultButton() == box->button(QMessageBox::Yes)});
        if (boxes.size() == 1) {
            answer(*box);
        } else {
            box->accept();
        }
    }
};

class VersionQuestion : public WebIfCheck {
  protected:
    void SetUp() override {
        WebIfCheck::SetUp();
        window = std::make_unique<VelantrixServer>(nullptr);
        server.answer({NEWER + "\n"});
        linkSubstitutes.system = [this](const char* command) {
            commands.emplace_back(command);
            return systemResult;
        };
    }

    /// Runs the window's check on a thread, as the core does, and the event loop meanwhile.
    int checkInWindow(const Answer& answer) {
        User user(answer);
        int result = -1;
        std::thread thread([this, &result] {
            result = window->checkVersion();
            QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection);
        });
        QApplication::exec();
        thread.join();
        boxes = user.boxes;
        return result;
    }

    void expectOnlyTheQuestion() { EXPECT_EQ(boxes.size(), 1U); }

    void expectMessage(const std::string& text) {
        ASSERT_EQ(boxes.size(), 2U);
        EXPECT_EQ(boxes[1].text, text);
        EXPECT_EQ(boxes[1].buttons, QMessageBox::Ok);
    }

    [[nodiscard]] std::string browserMessage() const {
        return "Could not open browser, please visit " + server.address() +
               " to get the new version. You will not be notified about this version again.";
    }

    [[nodiscard]] std::string laterMessage() const {
        return "Please visit " + server.address() +
               " at some future time to get the new version. You will not be notified about this "
               "version again.";
    }

    std::unique_ptr<VelantrixServer> window;
    std::vector<std::string> commands;
    std::vector<SeenBox> boxes;
    int systemResult = 0;
};

TEST_F(VersionQuestion, IsAskedWithYesAsTheDefault) {
    EXPECT_EQ(checkInWindow(press(QMessageBox::Yes)), 1);
    ASSERT_EQ(boxes.size(), 1U);
    EXPECT_EQ(boxes[0].title, "Velantrix Version Notification");
    EXPECT_EQ(boxes[0].text, QUESTION);
    EXPECT_EQ(boxes[0].icon, QMessageBox::Information);
    EXPECT_EQ(boxes[0].buttons, QMessageBox::Yes | QMessageBox::No);
    EXPECT_TRUE(boxes[0].yesIsDefault);
}

TEST_F(VersionQuestion, IsNotAskedWithoutNews) {
    server.answer({VELANTRIX_VERSION "\n"});
    EXPECT_EQ(checkInWindow(press(QMessageBox::Yes)), 0);
    EXPECT_TRUE(boxes.empty());
    EXPECT_TRUE(commands.empty());
}

TEST_F(VersionQuestion, VersionIsStoredBeforeTheAnswer) {
    std::string stored;
    checkInWindow([&stored](QMessageBox& box) {
        stored = Settings::getVersionCheckResponse();
        box.button(QMessageBox::No)->click();
    });
    EXPECT_EQ(stored, NEWER);
}

TEST_F(VersionQuestion, YesOpensTheAddress) {
    EXPECT_EQ(checkInWindow(press(QMessageBox::Yes)), 1);
    EXPECT_EQ(commands, std::vector<std::string>{"xdg-open " + server.address()});
    expectOnlyTheQuestion();
}

TEST_F(VersionQuestion, NoShowsWhereToGoLater) {
    EXPECT_EQ(checkInWindow(press(QMessageBox::No)), 1);
    EXPECT_TRUE(commands.empty());
    expectMessage(laterMessage());
}

TEST_F(VersionQuestion, ClosedBoxCountsAsNo) {
    EXPECT_EQ(checkInWindow([](QMessageBox& box) { box.reject(); }), 1);
    EXPECT_TRUE(commands.empty());
    expectMessage(laterMessage());
}

TEST_F(VersionQuestion, YesWithoutAShellShowsTheBrowserMessage) {
    for (const int result : {-1, 127}) {
        Settings::setVersionCheckTime(0);
        Settings::setVersionCheckResponse("");
        systemResult = result;
        EXPECT_EQ(checkInWindow(press(QMessageBox::Yes)), 1);
        expectMessage(browserMessage());
    }
}

TEST_F(VersionQuestion, YesWithAFailingCommandShowsNothingMore) {
    for (const int result : {127 * 256, 256, 9, 128}) {
        Settings::setVersionCheckTime(0);
        Settings::setVersionCheckResponse("");
        systemResult = result;
        EXPECT_EQ(checkInWindow(press(QMessageBox::Yes)), 1);
        expectOnlyTheQuestion();
    }
}

// --- With the real shell ---

TEST_F(VersionQuestion, BrowserDoesNotInheritTheServersSockets) {
    constexpr int KNOWN_NUMBER = 77;
    const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(::dup2(socket, KNOWN_NUMBER), KNOWN_NUMBER);
    const QTemporaryDir folder;
    const std::filesystem::path program = folder.path().toStdString() + "/xdg-open";
    std::ofstream(program) << "#!/bin/sh\n[ -e /proc/$$/fd/77 ]\necho $? > \"$0.held\"\n";
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    const ScopedVariable path("PATH", folder.path().toLocal8Bit());
    linkSubstitutes.system = nullptr;
    checkInWindow(press(QMessageBox::Yes));
    std::string held;
    std::ifstream(program.string() + ".held") >> held;
    EXPECT_EQ(held, "1") << "the browser has the socket, or has not been started";
    ::close(KNOWN_NUMBER);
    ::close(socket);
}

// --- The minimised window ---

TEST_F(VersionQuestion, MinimizedWindowPostponesTheFetch) {
    window->showMinimized();
    int looks = 0;
    linkSubstitutes.sleep = [this, &looks](int milliseconds) {
        EXPECT_EQ(milliseconds, MINIMIZED_STEP_MS);
        reallySleep(1);
        if (++looks == 3) {
            QMetaObject::invokeMethod(
                window.get(),
                [this] {
                    EXPECT_TRUE(server.takeRequests().empty());
                    window->showNormal();
                },
                Qt::BlockingQueuedConnection);
        }
    };
    EXPECT_EQ(checkInWindow(press(QMessageBox::No)), 1);
    // The window is restored some looks after it was asked to be.
    EXPECT_GE(looks, 3);
    EXPECT_EQ(server.takeRequests().size(), 1U);
    linkSubstitutes.sleep = nullptr;
}

TEST_F(VersionQuestion, WindowClosedWhileMinimizedEndsTheCheckQuietly) {
    window->showMinimized();
    std::atomic<bool> waiting{false};
    std::atomic<bool> closed{false};
    linkSubstitutes.sleep = [&waiting, &closed](int milliseconds) {
        if (milliseconds != MINIMIZED_STEP_MS) {
            reallySleep(milliseconds);
            return;
        }
        waiting = true;
        while (!closed) {
            reallySleep(1);
        }
    };
    int result = -1;
    VelantrixServer* const raw = window.get();
    std::thread thread([raw, &result] {
        const CallPin pin;
        result = raw->checkVersion();
    });
    while (!waiting) {
        reallySleep(1);
    }
    EXPECT_FALSE(CorePin::anyHeld());
    window.reset();
    closed = true;
    thread.join();
    linkSubstitutes.sleep = nullptr;
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(server.takeRequests().empty());
}

// --- The end of the program ---

TEST_F(VersionQuestion, ProgramMayEndWhileTheQuestionIsOpen) {
    User user([](QMessageBox&) { QCoreApplication::quit(); });
    VelantrixServer* const raw = window.get();
    std::thread thread([raw] { raw->checkVersion(); });
    QApplication::exec();
    window.reset();
    thread.join();
    ASSERT_FALSE(user.boxes.empty());
    EXPECT_EQ(user.boxes[0].text, QUESTION);
    EXPECT_TRUE(commands.empty());
}

// As with a settings file on a slow disc: what the check stores waits for the file's lock.
TEST_F(VersionQuestion, IsNotAskedWhenStoringTheNewsOutlastsTheWindow) {
    window.reset();
    alignas(VelantrixServer) static unsigned char room[sizeof(VelantrixServer)];
    auto* const raw = new (room) VelantrixServer(nullptr);
    server.answer({NEWER + "\n", 200, "", "late"});
    User user(press(QMessageBox::Yes));
    const int lines = ::memfd_create("lines", 0);
    const OutputTo output(lines);
    std::thread thread([raw] {
        const CallPin pin;
        raw->checkVersion();
    });
    ASSERT_TRUE(server.waitForRequest());
    QLockFile disc(QSettings("Velantrix", "Server").fileName() + ".lock");
    ASSERT_TRUE(disc.lock());
    server.letGo();
    ASSERT_TRUE(waitUntil([&] { return readAll(lines).find(NEWS) != std::string::npos; }));
    // After which the check no longer looks whether the window is there.
    raw->~VelantrixServer();
    std::fill(std::begin(room), std::end(room), static_cast<unsigned char>(0xA5));
    disc.unlock();
    thread.join();
    EXPECT_TRUE(user.boxes.empty());
    EXPECT_TRUE(commands.empty());
}

TEST_F(VersionQuestion, ProgramMayEndWhileTheBrowserRuns) {
    std::atomic<bool> running{false};
    std::atomic<bool> ended{false};
    linkSubstitutes.system = [&running, &ended](const char*) {
        running = true;
        QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection);
        while (!ended) {
            reallySleep(1);
        }
        return -1;
    };
    User user(press(QMessageBox::Yes));
    VelantrixServer* const raw = window.get();
    std::thread thread([raw] {
        const CallPin pin;
        raw->checkVersion();
    });
    QApplication::exec();
    EXPECT_TRUE(running);
    EXPECT_FALSE(CorePin::anyHeld());
    window.reset();
    ended = true;
    thread.join();
    EXPECT_EQ(user.boxes.size(), 1U);
}

}  // namespace
