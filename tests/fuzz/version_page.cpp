// A whole version check on answers of any content: a first page, and a second one for the case
// that the first shows another in a frame. libcurl's functions and the settings are substitutes.
// An input: how long the pieces are, the first page's length (two bytes), how often the pages are
// repeated, which makes them longer than an input can be, then the pages.

#include "update/version_page.h"

#include <algorithm>
#include <cstdarg>

#include "gui/Settings.h"
#include "tests/fuzz/fuzz_input.h"
#include "update/WebIf.h"
#include "update/curl_functions.h"

bool Settings::Warn48kDone = false;
MinToTrayOption Settings::MinToTray = MinToTrayOption::Taskbar;
std::string& Settings::InputSelect = *new std::string;
std::int32_t Settings::FileDialogEncOptMP3 = 2;
bool Settings::FileDialogTypeMP3 = true;
bool Settings::EnableHotkeys = true;
std::int32_t Settings::VersionCheckTime = 0;
std::string& Settings::VersionCheckResponse = *new std::string;

void Settings::loadSettings() {
    VersionCheckTime = 0;
    VersionCheckResponse = "3.0";
}

void Settings::setVersionCheckTime(int minutes) {
    VersionCheckTime = minutes;
}

void Settings::setVersionCheckResponse(const char* version) {
    VersionCheckResponse = version;
}

namespace {

constexpr const char* CURRENT_VERSION = "3.1";
constexpr std::size_t MIN_ADDRESS = 8;
constexpr std::size_t MAX_BODY_SIZE = 1024UL * 1024;
constexpr std::size_t MAX_PIECES = 16;
constexpr std::size_t LAST_CODE_FOR_ONCE = 239;

int anyHandle = 0;
void* receiver = nullptr;
std::string url;
std::string pages[2];
std::size_t transfers = 0;
std::size_t piece = 1;

CURL* easyInit() {
    transfers = 0;
    return &anyHandle;
}

// libcurl itself declares the last named parameter with this type.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wvarargs"
#endif
CURLcode easySetopt(CURL* /*handle*/, CURLoption option, ...) {
    std::va_list values;
    va_start(values, option);
    if (option == CURLOPT_WRITEDATA) {
        receiver = va_arg(values, void*);
    } else if (option == CURLOPT_URL) {
        url = va_arg(values, const char*);
    }
    va_end(values);
    return CURLE_OK;
}

CURLcode easyPerform(CURL* /*handle*/) {
    require(transfers < 2, "a frame is followed once");
    require(transfers == 0 || (url.size() >= MIN_ADDRESS && url.find('"') == std::string::npos),
            "the frame's address is what stood between the quotes");
    std::string page = pages[transfers++];
    // Each piece moves what came before it: of a long page they are longer.
    const std::size_t most = std::max(piece, page.size() / MAX_PIECES);
    for (std::size_t at = 0; at < page.size(); at += most) {
        const std::size_t length = std::min(most, page.size() - at);
        const std::size_t taken = WebIf::writeMemoryCallback(&page[at], 1, length, receiver);
        require(taken == (at + length <= MAX_BODY_SIZE ? length : 0), "1 MiB is taken, no more");
        if (taken != length) {
            return CURLE_WRITE_ERROR;
        }
    }
    return CURLE_OK;
}

void easyCleanup(CURL* /*handle*/) {}

/// The text repeated, up to twice the maximum. Long pages take long: most codes stand for once, the
/// highest ones for more and more, up to 65536 times.
std::string repeated(const std::string& text, std::size_t code) {
    const std::size_t root = code > LAST_CODE_FOR_ONCE ? code - LAST_CODE_FOR_ONCE : 1;
    const std::size_t times = root * root * root * root;
    std::string result;
    for (std::size_t i = 0; i < times && result.size() < 2 * MAX_BODY_SIZE; ++i) {
        result += text;
    }
    return result;
}

const char* easyStrerror(CURLcode /*code*/) {
    return "error";
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    silenceStandardOutput();
    curl_global_init2 = [](long) { return CURLE_OK; };
    curl_easy_init2 = easyInit;
    curl_easy_setopt2 = easySetopt;
    curl_easy_perform2 = easyPerform;
    curl_easy_cleanup2 = easyCleanup;
    curl_easy_strerror2 = easyStrerror;
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    piece = 1U + input.byte();
    const std::size_t low = input.byte();
    const std::size_t first = low + 256U * input.byte();
    const std::size_t code = input.byte();
    pages[0] = repeated(input.bytes(first), code);
    pages[1] = repeated(input.rest(), code);
    Settings::loadSettings();
    const std::string before = Settings::getVersionCheckResponse();

    WebIf fetcher;
    const int result = fetcher.checkVersion(CURRENT_VERSION);
    const std::string after = Settings::getVersionCheckResponse();
    require(result == 0 || result == 1, "the result is a truth value");
    require((result == 1) == (after != before), "a new version is remembered");
    require(after == before || (isVersionText(after) && after != CURRENT_VERSION),
            "what is remembered is another version");
    return 0;
}
