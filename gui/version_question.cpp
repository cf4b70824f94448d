// The window's part of the version check: waits while it is minimised, and asks.

#include <cassert>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <string>
#include <unistd.h>

#include "app/base/Thread.h"
#include "app/base/core_pin.h"
#include "common/thread_check.h"
#include "gui/VelantrixServer.h"
#include "update/web_address.h"

namespace {

constexpr int MINIMIZED_STEP_MS = 2000;
constexpr int NO_SHELL = 127;
constexpr int DESCRIPTORS_MARKED = 1024;

/// False when the window is gone: nothing of it may then be used.
bool waitWhileMinimized(const QWidget& window) {
    for (;;) {
        {
            const CorePin pin;
            if (!pin || !window.isMinimized()) {
                return static_cast<bool>(pin);
            }
        }
        Sleep(MINIMIZED_STEP_MS);
    }
}

/// The user's answer to the question; none when the window is gone.
std::optional<int> ask(VelantrixServer& window) {
    const CorePin pin;
    if (!pin) {
        return std::nullopt;
    }
    return window.showQuestion(
        QMessageBox::Information, "Velantrix Version Notification",
        "A new version of Velantrix Server is available. Would you like to download it now?",
        QMessageBox::Yes | QMessageBox::No);
}

/// Keeps child processes from inheriting our sockets: a browser that outlives the server would keep
/// its port busy.
void closeDescriptorsOnExec() {
    for (int descriptor = STDERR_FILENO + 1; descriptor < DESCRIPTORS_MARKED; ++descriptor) {
        ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
}

/// Opens the maker's web address in the user's browser; may return only when the browser ends.
/// False when no shell could be started. The status is not decoded: a shell that ran counts as
/// success.
bool openBrowser() {
    closeDescriptorsOnExec();
    const int status = std::system(browserCommand(webAddress()).c_str());
    return status >= 0 && status != NO_SHELL;
}

/// Shows `message`, unless the window is being closed.
void tellUser(VelantrixServer& window, const std::string& message) {
    if (const CorePin pin; pin) {
        window.emitShowMessage(message.c_str());
    }
}

}  // namespace

int VelantrixServer::checkVersion() {
    assert(!onMainThread());
    CallPin::release();
    if (!waitWhileMinimized(*this)) {
        return 0;
    }
    const int result = VelantrixServerNoGUI::checkVersion();
    const std::optional<int> answer = result == 0 ? std::nullopt : ask(*this);
    if (!answer) {
        return result;
    }
    if (*answer != QMessageBox::Yes) {
        tellUser(*this, std::string("Please visit ") + webAddress() +
                            " at some future time to get the new version. You will not be "
                            "notified about this version again.");
    } else if (!openBrowser()) {
        tellUser(*this, std::string("Could not open browser, please visit ") + webAddress() +
                            " to get the new version. You will not be notified about this "
                            "version again.");
    }
    return result;
}
