#include "update/web_address.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>

#include "app/base/console.h"
#include "built_in_address.h"

namespace {

constexpr const char* VARIABLE = "VELANTRIX_WEB_ADDRESS";
constexpr std::string_view SCHEMES[] = {"http://", "https://"};
constexpr std::string_view PLAIN_MARKS = "-._:/@%+,=";
constexpr std::string_view MARKS_FOR_SHELLS = "~?#[]";

bool contains(std::string_view text, char sought) {
    return text.find(sought) != std::string_view::npos;
}

// Not isalnum: its answer depends on the locale.
bool isLetterOrDigit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool isPlain(char c) {
    return isLetterOrDigit(c) || contains(PLAIN_MARKS, c);
}

bool isAllowed(char c) {
    return isPlain(c) || contains(MARKS_FOR_SHELLS, c);
}

/// A name, an IPv4 address or an IPv6 address in brackets.
bool canBeginHost(char c) {
    return isLetterOrDigit(c) || c == '[';
}

std::string_view afterScheme(std::string_view address) {
    for (const std::string_view scheme : SCHEMES) {
        if (address.substr(0, scheme.size()) == scheme) {
            return address.substr(scheme.size());
        }
    }
    return {};
}

bool isUsable(std::string_view address) {
    const std::string_view rest = afterScheme(address);
    if (rest.empty() || !canBeginHost(rest.front())) {
        return false;
    }
    for (const char c : rest) {
        if (!isAllowed(c)) {
            return false;
        }
    }
    return true;
}

std::string withoutLastSlash(std::string_view address) {
    if (!address.empty() && address.back() == '/') {
        address.remove_suffix(1);
    }
    return std::string(address);
}

}  // namespace

std::string chooseWebAddress(const char* runTimeValue, const char* builtIn) {
    if (runTimeValue != nullptr && isUsable(runTimeValue)) {
        return withoutLastSlash(runTimeValue);
    }
    std::string address = withoutLastSlash(builtIn);
    if (runTimeValue != nullptr) {
        consolePrintf("Ignoring %s, which is not a usable web address; using %s\n", VARIABLE,
                      address.c_str());
    }
    return address;
}

const char* webAddress() {
    // Never destroyed: the version check thread may still read it while the process exits.
    static const auto* const address =
        new std::string(chooseWebAddress(std::getenv(VARIABLE), VELANTRIX_BUILT_IN_ADDRESS));
    return address->c_str();
}

std::string browserCommand(std::string_view address) {
    assert(std::all_of(address.begin(), address.end(), isAllowed));
    std::string command = "xdg-open ";
    for (const char c : address) {
        if (!isPlain(c)) {
            command += '\\';
        }
        command += c;
    }
    return command;
}
