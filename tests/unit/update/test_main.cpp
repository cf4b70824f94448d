// Each test program has a network and a settings folder of its own, and its own web server as the
// maker's.

#include <QApplication>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "private_network.h"
#include "version_server.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests)) {
        return RUN_ALL_TESTS();
    }
    enterPrivateNetwork();
    const QTemporaryDir home;
    qputenv("HOME", home.path().toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", home.path().toLocal8Bit());
    qputenv("QT_QPA_PLATFORM", "offscreen");
    const QApplication application(argc, argv);
    qputenv("VELANTRIX_WEB_ADDRESS", VersionServer::instance().address().c_str());
    return RUN_ALL_TESTS();
}
