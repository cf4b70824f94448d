// The volume control's button on a system that gives no more processes.

#include <cerrno>
#include <sys/types.h>
#include <unistd.h>

#include <QPushButton>

#include "gui/VelantrixServer.h"
#include "gui_test.h"

namespace {

int calls = 0;

}  // namespace

/// The name is the linker's (see its --wrap).
extern "C" pid_t __wrap_vfork() {
    ++calls;
    errno = EAGAIN;
    return -1;
}

namespace {

// A window that took the failure for its child would become the volume control.
TEST(VolumeControlWithoutAChild, FailureIsPassedOverInSilence) {
    VelantrixServer window(nullptr);
    const pid_t process = ::getpid();
    ::testing::internal::CaptureStderr();
    window.findChild<QPushButton*>("pushButtonTest")->click();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(::getpid(), process);
    EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
}

}  // namespace
