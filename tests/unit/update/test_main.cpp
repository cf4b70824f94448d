// Each test program has a private network, a temporary settings folder, and its own web server as
// the maker's.

#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "tests/support/net_namespace.h"
#include "version_server.h"

#ifdef TEST_WITH_WINDOWS
#include <QApplication>
using Application = QApplication;
/// Read by the leak checker: Qt's platform without a screen leaves its screen behind.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libqoffscreen.so\nleak:QScreen\n";
}
#else
#include <QCoreApplication>
using Application = QCoreApplication;
#endif

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests)) {
        return RUN_ALL_TESTS();
    }
    const LoopbackNetwork network;
    const QTemporaryDir home;
    qputenv("HOME", home.path().toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", home.path().toLocal8Bit());
    qputenv("QT_QPA_PLATFORM", "offscreen");
    const Application application(argc, argv);
    qputenv("VELANTRIX_WEB_ADDRESS", VersionServer::instance().address().c_str());
    return RUN_ALL_TESTS();
}
