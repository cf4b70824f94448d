// A whole version check on answers of any content: a first page, and a second one for the case
// that the first shows another in a frame. libcurl's functions and the settings are substitutes.

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
constexpr std::size_t LEAST_ADDRESS = 8;

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
    require(transfers == 0 || (url.size() >= LEAST_ADDRESS && url.find('"') == std::string::npos),
            "the frame's address is what stood between the quotes");
    std::string page = pages[transfers++];
    for (std::size_t at = 0; at < page.size(); at += piece) {
        const std::size_t length = std::min(piece, page.size() - at);
        if (WebIf::writeMemoryCallback(&page[at], 1, length, receiver) != length) {
            return CURLE_WRITE_ERROR;
        }
    }
    return CURLE_OK;
}

void easyCleanup(CURL* /*handle*/) {}

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
    const std::size_t first = input.byte() + 256U * input.byte();
    pages[0] = input.bytes(first);
    pages[1] = input.rest();
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
