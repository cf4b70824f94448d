// A settings file of any content is loaded.

#include <cstring>
#include <sys/stat.h>

#include "gui/Settings.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

std::string file;

/// Qt recognises a changed file by its size and its time, in milliseconds: each gets its own.
void writeFile(const std::uint8_t* data, std::size_t size) {
    static time_t seconds = 0;
    const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    require(descriptor >= 0 && ::write(descriptor, data, size) == static_cast<ssize_t>(size),
            "the settings file can be written");
    const timespec times[2] = {{++seconds, 0}, {seconds, 0}};
    ::futimens(descriptor, times);
    ::close(descriptor);
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    silenceStandardOutput();
    static char folder[] = "/tmp/velantrix-fuzz-XXXXXX";
    require(::mkdtemp(folder) != nullptr, "a temporary folder can be made");
    ::setenv("XDG_CONFIG_HOME", folder, 1);
    ::setenv("XDG_CONFIG_DIRS", folder, 1);
    ::setenv("HOME", folder, 1);
    file = std::string(folder) + "/Velantrix";
    ::mkdir(file.c_str(), 0700);
    file += "/Server.conf";
    std::atexit([] {
        ::unlink(file.c_str());
        ::rmdir((std::string(folder) + "/Velantrix").c_str());
        ::rmdir(folder);
    });
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    writeFile(data, size);
    Settings::loadSettings();
    require(Settings::getVersionCheckResponse() != nullptr, "there is always a text");
    Settings::getInputSelect("");
    Settings::getInputSelect("2");
    return 0;
}
