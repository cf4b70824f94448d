#include <memory>

#include <QApplication>

#include "app/base/VelantrixServerNoGUI.h"
#include "app/base/command_line.h"
#include "app/base/console.h"
#include "app/base/main_loop.h"
#include "app/base/out_of_memory.h"
#include "app/base/process_exit.h"
#include "app/core_life.h"
#include "gui/VelantrixServer.h"

namespace {

/// An exit inside the event loop destroys Qt's global objects, which the threads that use the core
/// must not use any more. Their reports are not served: a thread that waits for an answer stays
/// blocked.
void leaveCore() {
    closeCore(nullptr, nullptr);
}

int runEventLoop() {
    const int result = QApplication::exec();
    // The exit handlers of a sound library that hangs in its start-up may hang, too.
    limitExit(finalStatus(result));
    if (getVerbose()) {
        consolePrintf("Exec returned with result %d\n", result);
    }
    return result;
}

/// The "offscreen" platform is never destroyed: its destruction first reads all fonts, and the font
/// library crashes when memory is short.
struct DestroyUnlessOffscreen {
    void operator()(const QApplication* application) const {
        if (QGuiApplication::platformName() != QLatin1String("offscreen")) {
            delete application;
        }
    }
};

int runHeadless(int& argc, char** argv) {
    const std::unique_ptr<const QApplication, DestroyUnlessOffscreen> application(
        new QApplication(argc, argv, 0));
    VelantrixServerNoGUI::GetIPAddress();
    installMainLoopRequests();
    int result = 0;
    {
        VelantrixServerNoGUI server;
        server.init();
        result = runEventLoop();
    }
    removeMainLoopRequests();
    return result;
}

int runWithWindow(int& argc, char** argv) {
#if QT_VERSION_MAJOR < 6  // Qt 6 scales by itself.
    QApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
    QApplication::setAttribute(Qt::AA_UseHighDpiPixmaps);
    QApplication::setHighDpiScaleFactorRoundingPolicy(
        Qt::HighDpiScaleFactorRoundingPolicy::PassThrough);
#endif
    QApplication::setDesktopFileName("example.velantrix.server");
    const QApplication application(argc, argv);
    installMainLoopRequests();
    int result = 0;
    {
        VelantrixServer window(nullptr);
        window.init();
        window.show();
        result = runEventLoop();
    }
    removeMainLoopRequests();
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    consoleStart();
    endWhenOutOfMemory();
    setExitPreparation(leaveCore);
    const ArgumentScan scan = scanArguments(argc, argv);
    readStartEnvironment();
    choosePlatform(scan);
    const int result = scan.nogui ? runHeadless(argc, argv) : runWithWindow(argc, argv);
    return finalStatus(result);
}
