#include <QApplication>

#include "app/VelantrixServerNoGUI.h"
#include "app/command_line.h"
#include "app/console.h"
#include "app/core_life.h"
#include "app/main_loop.h"
#include "app/out_of_memory.h"
#include "gui/VelantrixServer.h"

namespace {

constexpr int EXIT_DRAIN_MS = 500;

/// An exit in the middle destroys what Qt keeps for the whole program, which the threads that use
/// the core must not meet. Nobody serves their reports now: one that waits for its answer is left.
void leaveCore() {
    closeCore(nullptr, nullptr);
}

int runEventLoop() {
    const int result = QApplication::exec();
    if (getVerbose()) {
        consolePrintf("Exec returned with result %d\n", result);
    }
    return result;
}

int runHeadless(int& argc, char** argv) {
    const QApplication application(argc, argv, 0);
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
    consoleDrain(EXIT_DRAIN_MS);
    return finalStatus(result);
}
