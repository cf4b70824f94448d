// A settings file of any content is loaded, and what was loaded is stored again. Every input starts
// from the same values.

#include <clocale>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

#include "gui/Settings.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

constexpr char DEFAULTS[] =
    "[General]\nWarn48kDone=false\nMinToTray=0\nInputSelect=\nFileDialogEncOptMP3=2\n"
    "FileDialogTypeMP3=true\nEnableHotkeys=true\nVersionCheckTime=0\nVersionCheckResponse=\n";
constexpr const char* OTHER_INPUT = "2";
/// Storing takes many times as long as loading: only inputs of every eighth length are stored.
constexpr std::size_t STORED_LENGTHS = 8;

std::string file;

/// Qt recognises a changed file by its size and its time, in milliseconds: each gets its own.
void writeFile(const void* data, std::size_t size) {
    static time_t seconds = 0;
    const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    require(descriptor >= 0 && ::write(descriptor, data, size) == static_cast<ssize_t>(size),
            "the settings file can be written");
    const timespec times[2] = {{++seconds, 0}, {seconds, 0}};
    ::futimens(descriptor, times);
    ::close(descriptor);
}

std::string readFile() {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

struct Values {
    bool warned = Settings::getWarn48kDone();
    int tray = static_cast<int>(Settings::getMinToTray());
    int encoding = Settings::getFileDialogEncOptMP3();
    bool mp3 = Settings::getFileDialogTypeMP3();
    bool hotkeys = Settings::getEnableHotkeys();
    int checked = Settings::getVersionCheckTime();
    std::string response = Settings::getVersionCheckResponse();
    std::string input = Settings::getInputSelect("");
    std::string otherInput = Settings::getInputSelect(OTHER_INPUT);
};

bool operator==(const Values& a, const Values& b) {
    return a.warned == b.warned && a.tray == b.tray && a.encoding == b.encoding && a.mp3 == b.mp3 &&
           a.hotkeys == b.hotkeys && a.checked == b.checked && a.response == b.response &&
           a.input == b.input && a.otherInput == b.otherInput;
}

void loadDefaults() {
    writeFile(DEFAULTS, sizeof DEFAULTS - 1);
    Settings::loadSettings();
    const Values values;
    require(!values.warned && values.tray == 0 && values.encoding == 2 && values.mp3 &&
                values.hotkeys && values.checked == 0 && values.response.empty() &&
                values.input.empty() && values.otherInput.empty(),
            "nothing is left of the file before");
}

void store(const Values& values) {
    Settings::setWarn48kDone(values.warned);
    Settings::setMinToTray(static_cast<MinToTrayOption>(values.tray));
    Settings::setFileDialogEncOptMP3(values.encoding);
    Settings::setFileDialogTypeMP3(values.mp3);
    Settings::setEnableHotkeys(values.hotkeys);
    Settings::setVersionCheckTime(values.checked);
    Settings::setVersionCheckResponse(values.response.c_str());
    Settings::setInputSelect(values.input.c_str(), "");
    Settings::setInputSelect(values.otherInput.c_str(), OTHER_INPUT);
}

/// Loads the file with nothing of it left in memory.
void reload() {
    const std::string stored = readFile();
    loadDefaults();
    writeFile(stored.data(), stored.size());
    Settings::loadSettings();
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    silenceStandardOutput();
    std::setlocale(LC_ALL, "C.UTF-8");
    // Every setter waits until its file is on the disc: in memory that takes no time.
    static char inMemory[] = "/dev/shm/velantrix-fuzz-XXXXXX";
    static char onDisc[] = "/tmp/velantrix-fuzz-XXXXXX";
    static const char* const folder = ::mkdtemp(inMemory) != nullptr ? inMemory : ::mkdtemp(onDisc);
    require(folder != nullptr, "a temporary folder can be made");
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
    loadDefaults();
    writeFile(data, size);
    Settings::loadSettings();
    if (size % STORED_LENGTHS != 0) {
        return 0;
    }
    const Values loaded;
    store(loaded);
    require(Values() == loaded, "what is stored is what is used");
    reload();
    require(Values() == loaded, "what is stored in the same file is loaded again");
    loadDefaults();
    store(loaded);
    reload();
    require(Values() == loaded, "what is stored in another file is loaded again");
    return 0;
}
