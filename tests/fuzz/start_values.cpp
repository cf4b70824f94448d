// Any command line with any environment. An input is a row of texts that end with NUL: the values
// of the variables below (empty: not set), then the arguments.

#include <cstring>
#include <vector>

#include "app/command_line.h"
#include "discovery/query.h"
#include "tests/fuzz/fuzz_input.h"
#include "update/web_address.h"

namespace {

constexpr const char* VARIABLES[] = {"VELANTRIX_SERVER_PORT", "VELANTRIX_SERVER_BINDADDR",
                                     "VELANTRIX_WEB_ADDRESS", "QT_QPA_PLATFORM",
                                     "XDG_SESSION_TYPE",      "DISPLAY"};
constexpr std::size_t LONGEST_ADDRESS = 255;
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

void checkStart(const std::vector<const char*>& arguments) {
    const ArgumentScan scan = scanArguments(static_cast<int>(arguments.size()), arguments.data());
    require(scan.platformSeen || !scan.waylandArg, "a platform's name follows its option");
    readStartEnvironment();
    choosePlatform(scan);
    require(std::memchr(getCmdBindAddr(), 0, LONGEST_ADDRESS + 1) != nullptr, "the address ends");
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    silenceStandardOutput();
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
    checkStart(arguments);
    checkWebAddress();
    discoveryPort();
    return 0;
}
