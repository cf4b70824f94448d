// A program built without the version check.

#include <chrono>
#include <dlfcn.h>
#include <string>

#include <QDir>
#include <QSettings>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "app/base/VelantrixServerNoGUI.h"
#include "gui/Settings.h"
#include "update/WebIf.h"

struct CoreTestAccess {
    static void runVersionCheckThread(VelantrixServerNoGUI& core) { core.versionCheckThreadFn(); }
};

namespace {

constexpr auto WAIT_OF_A_CHECK = std::chrono::seconds(8);

class VersionCheckOff : public ::testing::Test {
  protected:
    void SetUp() override {
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, folder.path());
        ::testing::internal::CaptureStdout();
    }

    void TearDown() override {
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(Settings::getVersionCheckTime(), 0);
        EXPECT_STREQ(Settings::getVersionCheckResponse(), "");
        EXPECT_TRUE(QDir(folder.path()).isEmpty()) << "no settings file may be written";
        EXPECT_EQ(::dlopen("libcurl.so.4", RTLD_NOW | RTLD_NOLOAD), nullptr);
    }

    const QTemporaryDir folder;
};

TEST_F(VersionCheckOff, InitFindsNothingAndGivesNoAdvice) {
    EXPECT_EQ(WebIf::init(), 1);
}

TEST_F(VersionCheckOff, CheckFindsNothing) {
    VelantrixServerNoGUI core;
    EXPECT_EQ(core.checkVersion(), 0);
}

TEST_F(VersionCheckOff, ThreadEndsAtOnce) {
    VelantrixServerNoGUI core;
    const auto begin = std::chrono::steady_clock::now();
    CoreTestAccess::runVersionCheckThread(core);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, WAIT_OF_A_CHECK);
}

}  // namespace
