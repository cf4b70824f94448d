// What goes wrong around a check: libcurl or parts of it missing, memory short.

#include <cstdarg>
#include <dlfcn.h>
#include <string>

#include "update/web_address.h"
#include "web_if_fixture.h"

namespace {

std::string advice() {
    return std::string(
               " Velantrix Server will continue to run but won't be able to check for new\n"
               " versions. Please visit ") +
           webAddress() +
           " occasionally to check for\n"
           " new versions of this program. You may be able to fix this issue by installing\n"
           " libcurl using your linux system's package manager. If there is more than one\n"
           " option try the SSL variant of cURL.\n";
}

class WebIfWithoutLibrary : public WebIfCheck {
  protected:
    void SetUp() override {
        WebIfCheck::SetUp();
        curl_global_init2 = nullptr;
    }

    int init() {
        ::testing::internal::CaptureStdout();
        const int result = WebIf::init();
        printed = ::testing::internal::GetCapturedStdout();
        return result;
    }

    void expectUnusable() {
        server.answer({"3.2\n"});
        EXPECT_EQ(check(), 0);
        EXPECT_EQ(printed, "");
        EXPECT_TRUE(server.takeRequests().empty());
        EXPECT_EQ(Settings::getVersionCheckTime(), 0);
        WebIf::cleanup();
    }
};

TEST_F(WebIfWithoutLibrary, CheckBeforeLoadingDoesNothing) {
    expectUnusable();
}

TEST_F(WebIfWithoutLibrary, MissingLibraryIsPrintedWithAdvice) {
    linkSubstitutes.curlLibraryMissing = true;
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(printed,
              "Error, could not dlopen the cURL shared library libcurl.so.4.\n" + advice());
    expectUnusable();
}

class WebIfWithoutFunction : public WebIfWithoutLibrary,
                             public ::testing::WithParamInterface<const char*> {};

TEST_P(WebIfWithoutFunction, IsPrintedWithAdvice) {
    linkSubstitutes.curlFunctionMissing = GetParam();
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(
        printed,
        "Error, could not dlsym a member of the cURL shared library libcurl.so.4.\n" + advice());
    expectUnusable();
}

INSTANTIATE_TEST_SUITE_P(EachOne, WebIfWithoutFunction,
                         ::testing::Values("curl_global_init", "curl_global_cleanup",
                                           "curl_easy_init", "curl_easy_setopt",
                                           "curl_easy_perform", "curl_easy_cleanup",
                                           "curl_easy_strerror"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(WebIfCheck, LoadingPrintsNothing) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(WebIf::init(), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST_F(WebIfCheck, CleanupCleansUpOnce) {
    static int calls = 0;
    calls = 0;
    curl_global_cleanup2 = [] { ++calls; };
    WebIf::cleanup();
    EXPECT_EQ(calls, 1);
    curl_global_init2 = nullptr;
    WebIf::cleanup();
    EXPECT_EQ(calls, 1);
}

TEST_F(WebIfCheck, MissingHandleIsPrintedAndTheTimeStored) {
    curl_easy_init2 = []() -> CURL* { return nullptr; };
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(printed,
              "WebIf::checkVersion: curl_easy_init() failed, can't check for new versions\n");
    EXPECT_EQ(Settings::getVersionCheckTime(), NOW);
}

TEST_F(WebIfCheck, HandleIsReleasedOnEveryWay) {
    static int handles = 0;
    static int created = 0;
    static decltype(curl_easy_init2) realInit = nullptr;
    static decltype(curl_easy_cleanup2) realCleanup = nullptr;
    handles = 0;
    created = 0;
    realInit = curl_easy_init2;
    realCleanup = curl_easy_cleanup2;
    curl_easy_init2 = [] {
        ++handles;
        ++created;
        return realInit();
    };
    curl_easy_cleanup2 = [](CURL* handle) {
        --handles;
        realCleanup(handle);
    };
    int checks = 0;
    const auto expectReleased = [this, &checks](const VersionAnswer& answer) {
        Settings::setVersionCheckTime(0);
        server.answer(answer);
        check();
        EXPECT_EQ(created, ++checks) << answer.body;
        EXPECT_EQ(handles, 0) << answer.body;
    };
    for (const char* const body : {"3.2\n", "unusable\n", "<frame src=\"nowhere:99999\">", ""}) {
        expectReleased({body});
    }
    expectReleased({"first transfer failed\n", 404});
    EXPECT_EQ(printed, failure(CURLE_HTTP_RETURNED_ERROR));
}

CURLcode refuseProtocols(CURL* handle, CURLoption option, ...) {
    (void)handle;
    return option == CURLOPT_PROTOCOLS ? CURLE_UNKNOWN_OPTION : CURLE_OK;
}

TEST_F(WebIfCheck, WithoutTheLimitToWebProtocolsNothingIsFetched) {
    curl_easy_setopt2 = refuseProtocols;
    static bool performed = false;
    performed = false;
    curl_easy_perform2 = [](CURL*) {
        performed = true;
        return CURLE_OK;
    };
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(printed, failure(CURLE_UNKNOWN_OPTION));
    EXPECT_FALSE(performed);
}

TEST_F(WebIfCheck, LackOfMemoryFailsTheTransfer) {
    server.answer({"3.2\n"});
    linkSubstitutes.reallocFails = true;
    const int result = check();
    linkSubstitutes.reallocFails = false;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(printed, "not enough memory (realloc returned NULL)\n" + failure(CURLE_WRITE_ERROR));
    EXPECT_EQ(Settings::getVersionCheckTime(), NOW);
    EXPECT_STREQ(Settings::getVersionCheckResponse(), "");
}

TEST_F(WebIfCheck, LackOfMemoryAfterTheFirstChunkTakesNoMore) {
    WebIf receiver;
    char chunk[] = "3.2\n";
    EXPECT_EQ(WebIf::writeMemoryCallback(chunk, 1, 4, &receiver), 4U);
    ::testing::internal::CaptureStdout();
    linkSubstitutes.reallocFails = true;
    const std::size_t taken = WebIf::writeMemoryCallback(chunk, 1, 4, &receiver);
    linkSubstitutes.reallocFails = false;
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "not enough memory (realloc returned NULL)\n");
    EXPECT_EQ(taken, 0U);
}

TEST_F(WebIfCheck, ChunkLengthsThatOverflowAreRefused) {
    WebIf receiver;
    char chunk[] = "3.2\n";
    constexpr std::size_t HUGE_COUNT = ~std::size_t{0} / 2 + 1;
    EXPECT_EQ(WebIf::writeMemoryCallback(chunk, 2, HUGE_COUNT, &receiver), 0U);
    EXPECT_EQ(WebIf::writeMemoryCallback(chunk, HUGE_COUNT, 2, &receiver), 0U);
}

std::vector<std::pair<CURLoption, std::string>> setOptions;

/// Keeps an option with its value, but for pointers to something else than text.
CURLcode keepOption(CURL* /*handle*/, CURLoption option, ...) {
    std::string value;
    va_list values;
    va_start(values, option);
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        value = std::to_string(va_arg(values, long));
    } else if (option == CURLOPT_URL || option == CURLOPT_USERAGENT) {
        value = va_arg(values, const char*);
    }
    va_end(values);
    setOptions.emplace_back(option, value);
    return CURLE_OK;
}

TEST_F(WebIfCheck, OptionsAreSetInTheirOrderBeforeTheTransfer) {
    setOptions.clear();
    curl_easy_setopt2 = keepOption;
    curl_easy_perform2 = [](CURL*) {
        setOptions.emplace_back(CURLOPT_LASTENTRY, "transfer");
        return CURLE_OK;
    };
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(printed, shortReport(0, 0));
    const decltype(setOptions) expected = {
        {CURLOPT_URL, webAddress() + std::string(VERSION_FILE)},
        {CURLOPT_FOLLOWLOCATION, "1"},
        {CURLOPT_MAXREDIRS, "5"},
        {CURLOPT_FAILONERROR, "1"},
        {CURLOPT_WRITEFUNCTION, ""},
        {CURLOPT_WRITEDATA, ""},
        {CURLOPT_USERAGENT, "libcurl-agent/1.0"},
        {CURLOPT_PROTOCOLS, std::to_string(CURLPROTO_HTTP | CURLPROTO_HTTPS)},
        {CURLOPT_NOSIGNAL, "1"},
        {CURLOPT_LASTENTRY, "transfer"}};
    EXPECT_EQ(setOptions, expected);
}

TEST_F(WebIfCheck, WithoutAServerTheTransferFails) {
    curl_easy_perform2 = [](CURL* handle) {
        curl_easy_setopt2(handle, CURLOPT_URL, "http://127.0.0.1:9/");
        return reinterpret_cast<decltype(curl_easy_perform2)>(
            dlsym(dlopen("libcurl.so.4", RTLD_NOW), "curl_easy_perform"))(handle);
    };
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(printed, failure(CURLE_COULDNT_CONNECT));
}

}  // namespace
