#include "app/base/command_line.h"

#include <atomic>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <QString>
#include <QtGlobal>

#include "app/base/console.h"
#include "common/thread_check.h"

namespace {

std::int32_t CmdPortNum = 0;
constexpr std::size_t MAX_ADDRESS_LENGTH = 255;
char CmdBindAddr[MAX_ADDRESS_LENGTH + 1] = "";
std::atomic<bool> bindAddrGivenUp{false};
std::uint8_t Verbose = 0;

/// Copies an address into CmdBindAddr, at most 255 characters.
void setBindAddr(const char* address) {
    std::strncpy(CmdBindAddr, address, MAX_ADDRESS_LENGTH);
    CmdBindAddr[MAX_ADDRESS_LENGTH] = '\0';
}

std::int32_t toPort(const char* text) {
    return static_cast<std::int32_t>(std::strtol(text, nullptr, 10));
}

bool namesWayland(const QString& text) {
    return text.contains(QLatin1String("wayland"), Qt::CaseInsensitive);
}

void printWaylandWarning() {
    consolePuts(
        "Warning: This session may be using a Wayland variant. If you see any other Qt errors "
        "you should choose X11 by starting VelantrixServer with '-platform xcb' option.");
}

/// The rules for a session without a "-platform" argument.
void applySessionRules() {
    const QString platform = qEnvironmentVariable("QT_QPA_PLATFORM");
    if (!platform.isEmpty()) {
        if (namesWayland(platform)) {
            printWaylandWarning();
        }
        return;
    }
    const QString session = qEnvironmentVariable("XDG_SESSION_TYPE");
    if (session.compare(QLatin1String("wayland"), Qt::CaseInsensitive) == 0) {
        consolePuts(
            "Warning: Ignoring XDG_SESSION_TYPE=wayland. Start VelantrixServer with '-platform "
            "wayland' option or set environment variable QT_QPA_PLATFORM=wayland to run on "
            "Wayland anyway.");
        qputenv("QT_QPA_PLATFORM", "xcb");
    } else if (namesWayland(session)) {
        printWaylandWarning();
    }
}

}  // namespace

int getCmdPortNum() {
    return CmdPortNum;
}

const char* getCmdBindAddr() {
    return bindAddrGivenUp.load(std::memory_order_relaxed) ? "" : CmdBindAddr;
}

// A flag, because the main thread may be reading the text.
void giveUpCmdBindAddr() {
    bindAddrGivenUp.store(true, std::memory_order_relaxed);
}

bool getVerbose() {
    return Verbose != 0;
}

ArgumentScan scanArguments(int argc, const char* const* argv) {
    assert(onMainThread());
    CmdPortNum = 0;
    CmdBindAddr[0] = '\0';
    bindAddrGivenUp.store(false, std::memory_order_relaxed);
    Verbose = 0;

    ArgumentScan scan;
    bool expectPort = false;
    bool expectBind = false;
    for (int i = 1; i < argc; ++i) {
        const char* const argument = argv[i];
        const auto is = [argument](const char* word) { return std::strcmp(argument, word) == 0; };
        if (is("-nogui")) {
            scan.nogui = true;
        } else if (is("-verbose")) {
            Verbose = 1;
        } else if (is("-platform")) {
            scan.platformSeen = true;
        } else if (scan.platformSeen && namesWayland(QString::fromLocal8Bit(argument))) {
            scan.waylandArg = true;
        } else if (is("-p")) {
            expectPort = true;
            expectBind = false;
        } else if (is("-b")) {
            expectBind = true;
            expectPort = false;
        } else if (expectPort) {
            expectPort = false;
            CmdPortNum = toPort(argument);
        } else if (expectBind) {
            expectBind = false;
            setBindAddr(argument);
        }
    }
    return scan;
}

void readStartEnvironment() {
    assert(onMainThread());
    if (CmdPortNum == 0) {
        const char* const port = std::getenv("VELANTRIX_SERVER_PORT");
        if (port != nullptr && port[0] >= '0' && port[0] <= '9') {
            CmdPortNum = toPort(port);
            if (CmdPortNum != 0) {
                consolePrintf("Using port number %d from environment\n", CmdPortNum);
            }
        }
    }
    if (CmdBindAddr[0] == '\0') {
        const char* const address = std::getenv("VELANTRIX_SERVER_BINDADDR");
        if (address != nullptr && address[0] != '\0') {
            setBindAddr(address);
            consolePrintf("Using bind address %s from environment\n", CmdBindAddr);
        }
    }
}

void choosePlatform(const ArgumentScan& scan) {
    assert(onMainThread());
    if (scan.platformSeen) {
        if (scan.waylandArg) {
            printWaylandWarning();
        }
        return;
    }
    applySessionRules();
    const QString platform = qEnvironmentVariable("QT_QPA_PLATFORM");
    const bool takesX11 = platform.isEmpty() || platform == QLatin1String("xcb");
    if (scan.nogui && takesX11 && qEnvironmentVariableIsEmpty("DISPLAY")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
}
