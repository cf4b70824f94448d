// Any command line with any environment. An input is a row of texts that end with NUL: the values
// of the variables below (empty: not set), then the arguments.

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "app/base/command_line.h"
#include "audio/Audio.h"
#include "discovery/query.h"
#include "stream/send_path.h"
#include "stream/wire_format.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/fake_portaudio.h"
#include "update/web_address.h"

/// No sound is captured, so that nothing of the streaming side is needed.
int processBuffer(char* /*buffer*/, int /*length*/, bool /*hasInput*/) {
    return 0;
}

namespace {

std::FILE* devNull = nullptr;

constexpr const char* VARIABLES[] = {"VELANTRIX_SERVER_PORT", "VELANTRIX_SERVER_BINDADDR",
                                     "VELANTRIX_WEB_ADDRESS", "QT_QPA_PLATFORM",
                                     "XDG_SESSION_TYPE",      "DISPLAY",
                                     "WAYLAND_DISPLAY",       "VELANTRIX_SERVER_SAMPLE_RATE"};
constexpr std::size_t MAX_ADDRESS = 255;
constexpr const char* BUILT_IN = "http://www.velantrix.example";

void setVariable(const char* name, const std::string& value) {
    if (value.empty()) {
        ::unsetenv(name);
    } else {
        ::setenv(name, value.c_str(), 1);
    }
}

/// True when a shell reads `command` as the program's name and one plain word.
bool isTwoPlainWords(const std::string& command) {
    constexpr const char* START = "xdg-open ";
    if (command.compare(0, std::strlen(START), START) != 0) {
        return false;
    }
    for (std::size_t i = std::strlen(START); i < command.size(); ++i) {
        const auto c = static_cast<unsigned char>(command[i]);
        if (c == '\\') {
            ++i;
        } else if (c <= ' ' || c > '~' || std::strchr("$`\"'|&;<>()*?[]#~!{}^", c) != nullptr) {
            return false;
        }
    }
    return true;
}

void checkWebAddress() {
    const std::string address = chooseWebAddress(std::getenv("VELANTRIX_WEB_ADDRESS"), BUILT_IN);
    require(address.compare(0, 7, "http://") == 0 || address.compare(0, 8, "https://") == 0,
            "only web addresses are used");
    require(isTwoPlainWords(browserCommand(address)), "the address stays one word of the shell");
}

/// The number that `text` is, when it is just a number of up to five digits.
std::optional<int> plainNumber(const std::string& text) {
    constexpr std::size_t MAX_DIGITS = 5;
    if (text.empty() || text.size() > MAX_DIGITS ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    return std::stoi(text);
}

/// The digits that `text` begins with, without zeros in front: a number of any size.
std::string leadingNumber(const std::string& text) {
    const std::string digits = text.substr(0, text.find_first_not_of("0123456789"));
    return digits.substr(std::min(digits.find_first_not_of('0'), digits.size()));
}

bool startsWithDigit(const std::string& text) {
    return !text.empty() && text[0] >= '0' && text[0] <= '9';
}

std::string valueOf(const char* variable) {
    const char* const value = std::getenv(variable);
    return value != nullptr ? value : "";
}

/// A port from the environment: a plain number is taken, what does not begin with a digit is not.
void checkPortVariable() {
    const std::string text = valueOf("VELANTRIX_SERVER_PORT");
    const char* const noArguments = "VelantrixServer";
    scanArguments(1, &noArguments);
    readStartEnvironment();
    if (const std::optional<int> port = plainNumber(text)) {
        require(getCmdPortNum() == *port, "a plain port is taken");
        require(discoveryPort() == (*port + 1) % 65536, "discovery is one above it");
    } else if (!startsWithDigit(text)) {
        require(getCmdPortNum() == 0, "the default port is kept");
        require(discoveryPort() == wire::DEFAULT_DISCOVERY_PORT, "so is discovery's");
    }
}

void checkPortArgument(const std::string& text) {
    const char* const arguments[] = {"VelantrixServer", "-p", text.c_str()};
    scanArguments(3, arguments);
    if (const std::optional<int> port = plainNumber(text)) {
        require(getCmdPortNum() == *port, "a plain port is taken");
    } else if (text.find_first_of("0123456789") == std::string::npos) {
        require(getCmdPortNum() == 0, "what is no number leaves the default");
    }
}

void checkSampleRate() {
    const std::string text = valueOf("VELANTRIX_SERVER_SAMPLE_RATE");
    std::atomic<bool> is48k{true};
    std::FILE* const saved = stderr;
    stderr = devNull;
    const int result = Audio::Open(0, is48k);
    stderr = saved;
    const double wantedRate = fakePortAudio().rate;
    fakePortAudio().log.clear();
    // The program opens once and never frees them.
    delete[] Audio::_CaptureBuffer;
    delete[] Audio::_CaptureBufferComp;
    require(result == paDeviceUnavailable && !is48k, "a failed capture has no rate");
    require(wantedRate == 44100 || wantedRate == 48000, "there are two rates");
    require(!startsWithDigit(text) || (wantedRate == 48000) == (leadingNumber(text) == "48000"),
            "the user's rate is taken");
    require(startsWithDigit(text) || wantedRate == fakePortAudio().deviceRate,
            "the device's rate is kept");
}

void checkStart(const std::vector<const char*>& arguments) {
    const ArgumentScan scan = scanArguments(static_cast<int>(arguments.size()), arguments.data());
    require(scan.platformSeen || !scan.waylandArg, "a platform's name follows its option");
    readStartEnvironment();
    choosePlatform(scan);
    require(std::memchr(getCmdBindAddr(), 0, MAX_ADDRESS + 1) != nullptr, "the address ends");
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    silenceStandardOutput();
    devNull = std::fopen("/dev/null", "we");
    require(devNull != nullptr, "reports can be thrown away");
    fakePortAudio().openResult = paDeviceUnavailable;
    testing::GTEST_FLAG(throw_on_failure) = true;  // The device's own checks.
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    for (const char* const variable : VARIABLES) {
        setVariable(variable, input.text());
    }
    std::vector<std::string> texts = {"VelantrixServer"};
    while (!input.empty()) {
        texts.push_back(input.text());
    }
    std::vector<const char*> arguments;
    for (const std::string& text : texts) {
        arguments.push_back(text.c_str());
    }
    checkPortVariable();
    for (const std::string& text : texts) {
        checkPortArgument(text);
    }
    checkSampleRate();
    checkStart(arguments);
    checkWebAddress();
    return 0;
}
