// The version check thread of the core, which outlives the core.

#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <QLockFile>
#include <QSettings>

#include "app/base/VelantrixServerNoGUI.h"
#include "app/base/core_pin.h"
#include "app/base/out_of_memory.h"
#include "app/core_life.h"
#include "web_if_fixture.h"

struct CoreTestAccess {
    static void runVersionCheckThread(VelantrixServerNoGUI& core) { core.versionCheckThreadFn(); }
};

namespace {

constexpr int WAIT_BEFORE_CHECK_MS = 8000;
constexpr auto MAX_SHUTDOWN = std::chrono::seconds(20);  // 3 s on a machine that is not busy.

std::vector<std::string> events;

/// Finds no memory when it checks.
class ScarceCore : public VelantrixServerNoGUI {
  public:
    int checkVersion() override {
        events.emplace_back("check");
        std::get_new_handler()();  // operator new does this, but not a sanitizer's.
        return 1;
    }
};

/// While it lives, a lack of memory is handled as in the running server.
class HandledLackOfMemory {
  public:
    HandledLackOfMemory() { endWhenOutOfMemory(); }
    ~HandledLackOfMemory() {
        std::set_new_handler(newHandler);
        std::set_terminate(terminateHandler);
    }
    HandledLackOfMemory(const HandledLackOfMemory&) = delete;
    HandledLackOfMemory& operator=(const HandledLackOfMemory&) = delete;

  private:
    std::new_handler newHandler = std::get_new_handler();
    std::terminate_handler terminateHandler = std::get_terminate();
};

/// Tells when it is checked.
class WatchedCore : public VelantrixServerNoGUI {
  public:
    int checkVersion() override {
        events.emplace_back("check");
        return 1;
    }
};

class VersionFlow : public WebIfCheck {
  protected:
    void SetUp() override {
        WebIfCheck::SetUp();
        events.clear();
        curl_global_cleanup2 = [] { events.emplace_back("cleanup"); };
    }

    /// Skips the wait before the check, after calling `meanwhile`.
    static void shortenWait(const std::function<void()>& meanwhile) {
        linkSubstitutes.sleep = [meanwhile](int milliseconds) {
            if (milliseconds != WAIT_BEFORE_CHECK_MS) {
                reallySleep(milliseconds);
                return;
            }
            events.emplace_back("wait");
            meanwhile();
        };
    }
};

TEST_F(VersionFlow, ThreadWaitsThenChecksOnceThenCleansUp) {
    WatchedCore core;
    shortenWait([] {});
    CoreTestAccess::runVersionCheckThread(core);
    EXPECT_EQ(events, (std::vector<std::string>{"wait", "check", "cleanup"}));
}

TEST_F(VersionFlow, HeadlessCheckComparesWithTheVersionOfTheBanner) {
    VelantrixServerNoGUI core;
    shortenWait([] {});
    server.answer({NEWER + "\n"});
    ::testing::internal::CaptureStdout();
    CoreTestAccess::runVersionCheckThread(core);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              report(NEWER.size() + 1, NEWER, VELANTRIX_VERSION) + NEWS);
    EXPECT_EQ(Settings::getVersionCheckResponse(), NEWER);
}

TEST_F(VersionFlow, HeadlessCheckReturnsWhetherThereIsNews) {
    VelantrixServerNoGUI core;
    server.answer({NEWER + "\n"});
    EXPECT_EQ(core.checkVersion(), 1);
    EXPECT_EQ(core.checkVersion(), 0);
}

TEST_F(VersionFlow, LackOfMemoryIsPrintedAndTheServerGoesOn) {
    const HandledLackOfMemory handled;
    ScarceCore core;
    shortenWait([] {});
    ::testing::internal::CaptureStdout();
    CoreTestAccess::runVersionCheckThread(core);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Not enough memory to check for a new version\n");
    EXPECT_EQ(events, (std::vector<std::string>{"wait", "check", "cleanup"}));
    EXPECT_TRUE(CorePin());
}

TEST_F(VersionFlow, CoreGoneDuringTheWaitEndsTheThreadQuietly) {
    auto core = std::make_unique<WatchedCore>();
    WatchedCore* const raw = core.get();
    shortenWait([&core] { core.reset(); });
    CoreTestAccess::runVersionCheckThread(*raw);
    EXPECT_EQ(events, std::vector<std::string>{"wait"});
}

/// Tells another thread when it is checked.
class AnnouncingCore : public VelantrixServerNoGUI {
  public:
    int checkVersion() override {
        checking.store(true);
        return VelantrixServerNoGUI::checkVersion();
    }

    static std::atomic<bool> checking;
};

std::atomic<bool> AnnouncingCore::checking{false};

// As with a settings file on a slow disc: storing the time waits for the file's lock.
TEST_F(VersionFlow, CoreGoneWhileTheTimeIsStoredFetchesNothing) {
    auto core = std::make_unique<AnnouncingCore>();
    AnnouncingCore* const raw = core.get();
    shortenWait([] {});
    server.answer({NEWER + "\n"});
    QLockFile disc(QSettings("Velantrix", "Server").fileName() + ".lock");
    ASSERT_TRUE(disc.lock());
    std::thread thread([raw] { CoreTestAccess::runVersionCheckThread(*raw); });
    while (!AnnouncingCore::checking.load()) {
        reallySleep(1);
    }
    core.reset();
    disc.unlock();
    thread.join();
    EXPECT_TRUE(server.takeRequests().empty());
    EXPECT_EQ(events, std::vector<std::string>{"wait"});
}

CURL* keptHandle = nullptr;
decltype(curl_easy_init2) openHandle = nullptr;
decltype(curl_easy_cleanup2) releaseHandle = nullptr;

/// Remembers libcurl's handle when it is opened, and reports it when it is released.
void keepHandle() {
    openHandle = curl_easy_init2;
    releaseHandle = curl_easy_cleanup2;
    curl_easy_init2 = [] { return keptHandle = openHandle(); };
    curl_easy_cleanup2 = [](CURL*) { events.emplace_back("release"); };
}

// The answer comes when the core is gone, and is ignored. libcurl's global data may be gone, too.
TEST_F(VersionFlow, CoreGoneDuringTheFetchEndsTheThreadQuietly) {
    auto core = std::make_unique<VelantrixServerNoGUI>();
    VelantrixServerNoGUI* const raw = core.get();
    shortenWait([] {});
    keepHandle();
    server.answer({NEWER + "\n", 200, "", "late"});
    ::testing::internal::CaptureStdout();
    std::thread thread([raw] { CoreTestAccess::runVersionCheckThread(*raw); });
    ASSERT_TRUE(server.waitForRequest());
    EXPECT_FALSE(CorePin::anyHeld());
    const auto begin = std::chrono::steady_clock::now();
    core.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, MAX_SHUTDOWN);
    server.letGo();
    thread.join();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(events, std::vector<std::string>{"wait"});
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "");
    EXPECT_EQ(Settings::getVersionCheckTime(), NOW);
    releaseHandle(keptHandle);
}

}  // namespace
