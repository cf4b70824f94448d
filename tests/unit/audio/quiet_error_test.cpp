// Standard error while PortAudio starts, when there is no descriptor to keep it in.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>

#include "tests/unit/audio/audio_fixture.h"

namespace {

bool refuseToDuplicate = false;

}  // namespace

extern "C" {

int __real_fcntl(int descriptor, int command, ...);

int __wrap_fcntl(int descriptor, int command, ...) {
    if (refuseToDuplicate && command == F_DUPFD_CLOEXEC) {
        errno = EMFILE;
        return -1;
    }
    std::va_list values;
    va_start(values, command);
    void* const value = va_arg(values, void*);
    va_end(values);
    return __real_fcntl(descriptor, command, value);
}
}

TEST(AudioOpen, StandardErrorThatCannotBeKeptIsNotTurnedOff) {
    const ChildRun run = runWithVerbose(false, [] {
        refuseToDuplicate = true;
        std::atomic<bool> flag{false};
        EXPECT_EQ(Audio::Open(0, flag), 0);
        std::fputs("later\n", stderr);
    });
    EXPECT_EQ(run.err, "PortAudio Pa_Initialize call completed with return value 0\nlater\n");
}
