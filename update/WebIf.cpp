#include "update/WebIf.h"

#include <atomic>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/base/console.h"
#include "app/base/core_pin.h"
#include "common/thread_check.h"
#include "gui/Settings.h"
#include "update/curl_functions.h"
#include "update/version_page.h"
#include "update/web_address.h"

namespace {

constexpr const char* VERSION_FILE_PATH = "/VelantrixData/cur_version_linuxRPiGUI.txt";
constexpr const char* USER_AGENT = "libcurl-agent/1.0";
constexpr long MAX_REDIRECTS = 5;
constexpr long WEB_PROTOCOLS = CURLPROTO_HTTP | CURLPROTO_HTTPS;
constexpr std::size_t MAX_BODY_SIZE = 1024UL * 1024;
constexpr int SECONDS_PER_MINUTE = 60;
constexpr int MIN_PAUSE_MINUTES = 479;

void printAdvice() {
    consolePuts(" Velantrix Server will continue to run but won't be able to check for new");
    consolePrintf(" versions. Please visit %s occasionally to check for\n", webAddress());
    consolePuts(" new versions of this program. You may be able to fix this issue by installing");
    consolePuts(" libcurl using your linux system's package manager. If there is more than one");
    consolePuts(" option try the SSL variant of cURL.");
}

const char* versionFileAddress() {
    // Never destroyed: the version check thread may still read it while the process exits.
    static const auto* const address =
        new std::string(std::string(webAddress()) + VERSION_FILE_PATH);
    return address->c_str();
}

std::int32_t minutesSinceEpoch() {
    return static_cast<std::int32_t>(std::time(nullptr) / SECONDS_PER_MINUTE);
}

/// A check in the future does not count: the clock was set back.
bool checkedLately(std::int32_t last, std::int32_t now) {
    return last <= now && now <= std::int64_t{last} + MIN_PAUSE_MINUTES;
}

/// Sets options one after the other until one fails.
class OptionSetter {
  public:
    explicit OptionSetter(CURL* curlHandle) : handle_(curlHandle) {}

    template <class Value>
    OptionSetter& set(CURLoption option, Value value) {
        if (result_ == CURLE_OK) {
            result_ = curl_easy_setopt2(handle_, option, value);
        }
        return *this;
    }

    [[nodiscard]] CURLcode outcome() const { return result_; }

  private:
    CURL* handle_;
    CURLcode result_ = CURLE_OK;
};

CURLcode prepare(CURL* handle, WebIf* receiver) {
    return OptionSetter(handle)
        .set(CURLOPT_URL, versionFileAddress())
        .set(CURLOPT_FOLLOWLOCATION, 1L)
        .set(CURLOPT_MAXREDIRS, MAX_REDIRECTS)
        .set(CURLOPT_FAILONERROR, 1L)
        .set(CURLOPT_WRITEFUNCTION, &WebIf::writeMemoryCallback)
        .set(CURLOPT_WRITEDATA, receiver)
        .set(CURLOPT_USERAGENT, USER_AGENT)
        // A redirect or a frame must not lead to files or to other services.
        .set(CURLOPT_PROTOCOLS, WEB_PROTOCOLS)
        // The process has other threads and its own handling of signals.
        .set(CURLOPT_NOSIGNAL, 1L)
        .outcome();
}

/// Performs a transfer of any duration without delaying the destruction of the core object. No
/// result when the core is gone: then settings and other global objects, also libcurl's, may not be
/// used.
template <class Prepare>
std::optional<CURLcode> perform(CURL* handle, Prepare prepare) {
    if (const CorePin pin; !pin) {
        return std::nullopt;
    } else if (const CURLcode prepared = prepare(); prepared != CURLE_OK) {
        return prepared;
    }
    const CURLcode result = curl_easy_perform2(handle);
    return CorePin() ? std::optional(result) : std::nullopt;
}

/// Whether it is time for a check, which is then noted in the settings. False when the core is
/// gone.
bool beginCheck() {
    const CorePin pin;
    const std::int32_t now = minutesSinceEpoch();
    if (!pin || checkedLately(Settings::getVersionCheckTime(), now)) {
        return false;
    }
    Settings::setVersionCheckTime(now);
    return true;
}

void release(CURL* handle) {
    static std::atomic<CURL*> left{nullptr};  // Kept, so that it does not count as a leak.
    if (const CorePin pin; pin) {
        curl_easy_cleanup2(handle);
    } else {
        left.store(handle);
    }
}

}  // namespace

int WebIf::init() {
    assert(onMainThread());
    // Called here so that a message about the variable appears at start-up, and so that it needs no
    // memory while clients are served.
    versionFileAddress();
    if (!loadCurlFunctions()) {
        printAdvice();
        curl_global_init2 = nullptr;
        return 1;
    }
    curl_global_init2(CURL_GLOBAL_ALL);
    return 0;
}

void WebIf::cleanup() {
    if (curl_global_init2 != nullptr && curl_global_cleanup2 != nullptr) {
        curl_global_cleanup2();
    }
}

WebIf::WebIf() : memory(static_cast<char*>(std::malloc(1))) {}

WebIf::~WebIf() {
    std::free(memory);
}

std::size_t WebIf::writeMemoryCallback(void* contents, std::size_t itemSize, std::size_t itemCount,
                                       void* userp) {
    auto* const receiver = static_cast<WebIf*>(userp);
    const std::size_t room = MAX_BODY_SIZE - receiver->size;
    if (itemSize > 0 && itemCount > room / itemSize) {
        return 0;
    }
    const std::size_t length = itemSize * itemCount;
    char* const grown =
        static_cast<char*>(std::realloc(receiver->memory, receiver->size + length + 1));
    if (grown == nullptr) {
        std::free(receiver->memory);
        receiver->memory = nullptr;
        consolePuts("not enough memory (realloc returned NULL)");
        return 0;
    }
    receiver->memory = grown;
    std::memcpy(receiver->memory + receiver->size, contents, length);
    receiver->size += length;
    receiver->memory[receiver->size] = '\0';
    return length;
}

int WebIf::checkVersion(const char* currentVersion) {
    if (curl_global_init2 == nullptr || !beginCheck()) {
        return 0;
    }
    // Released also when memory runs out, which throws.
    std::unique_ptr<CURL, void (*)(CURL*)> handle(nullptr, release);
    if (const CorePin pin; pin) {
        handle.reset(curl_easy_init2());
    } else {
        return 0;  // The core is gone.
    }
    if (handle == nullptr) {
        consolePuts("WebIf::checkVersion: curl_easy_init() failed, can't check for new versions");
        return 0;
    }
    return fetch(handle.get()) && fetchFrame(handle.get()) ? judge(currentVersion) : 0;
}

bool WebIf::fetch(void* handle) {
    const std::optional<CURLcode> result =
        perform(handle, [this, handle] { return prepare(handle, this); });
    if (result.value_or(CURLE_OK) != CURLE_OK) {
        consolePrintf("WebIf::checkVersion: curl_easy_perform() failed: %s\n",
                      curl_easy_strerror2(*result));
    }
    return result == CURLE_OK;
}

/// Fetches the page in a frame instead, once. True when there is no frame.
bool WebIf::fetchFrame(void* handle) {
    const std::string address(frameAddress(memory, size));
    if (address.empty()) {
        return true;
    }
    size = 0;
    const std::optional<CURLcode> result = perform(handle, [handle, &address] {
        return OptionSetter(handle).set(CURLOPT_URL, address.c_str()).outcome();
    });
    if (result.value_or(CURLE_OK) != CURLE_OK) {
        consolePrintf("WebIf::checkVersion: Second curl_easy_perform() failed: %s\n",
                      curl_easy_strerror2(*result));
    }
    return result == CURLE_OK;
}

int WebIf::judge(const char* currentVersion) const {
    const CorePin pin;
    if (!pin) {
        return 0;
    }
    const std::string line(firstLine(memory, size));
    const auto bytes = static_cast<unsigned long>(size);
    const auto length = static_cast<unsigned long>(line.size());
    if (!isVersionText(line) || !isVersionText(currentVersion)) {
        consolePrintf("WebIf::checkVersion: %lu bytes retrieved (%lu)\n", bytes, length);
        return 0;
    }
    consolePrintf("WebIf::checkVersion: %lu bytes retrieved (%lu): %s (%s)\n", bytes, length,
                  line.c_str(), currentVersion);
    if (line == currentVersion) {
        return 0;
    }
    consolePuts("WebIf::checkVersion: A new version of Velantrix Server is available");
    if (line == Settings::getVersionCheckResponse()) {
        return 0;
    }
    Settings::setVersionCheckResponse(line.c_str());
    return 1;
}
