// What a check asks of libcurl, with a stand-in for the library that only keeps it.

#include <algorithm>
#include <cstdarg>
#include <string>
#include <vector>

#include "update/web_address.h"
#include "web_if_fixture.h"

namespace {

using ReceiveFunction = std::size_t (*)(void*, std::size_t, std::size_t, void*);

/// One option as it was set; of the values the one that its kind has.
struct SetOption {
    CURLoption option;
    long number = 0;
    std::string text;
};

struct KeptCalls {
    std::vector<SetOption> options;
    std::vector<std::size_t> transfers;  ///< Options that had been set before each.
    ReceiveFunction receive = nullptr;
    void* receiver = nullptr;
    std::string page;  ///< What the first transfer brings; then there is nothing more.
};

KeptCalls kept;

CURLcode keepOption(CURL* /*handle*/, CURLoption option, ...) {
    SetOption set{option, 0, ""};
    va_list values;
    va_start(values, option);
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        set.number = va_arg(values, long);
    } else if (option == CURLOPT_WRITEFUNCTION) {
        kept.receive = va_arg(values, ReceiveFunction);
    } else if (option == CURLOPT_WRITEDATA) {
        kept.receiver = va_arg(values, void*);
    } else {
        set.text = va_arg(values, const char*);
    }
    va_end(values);
    kept.options.push_back(set);
    return CURLE_OK;
}

CURLcode keepTransfer(CURL* /*handle*/) {
    kept.transfers.push_back(kept.options.size());
    std::string page;
    page.swap(kept.page);
    if (!page.empty()) {
        EXPECT_EQ(kept.receive(page.data(), 1, page.size(), kept.receiver), page.size());
    }
    return CURLE_OK;
}

class WebIfOptions : public WebIfCheck {
  protected:
    void SetUp() override {
        WebIfCheck::SetUp();
        kept = {};
        curl_easy_setopt2 = keepOption;
        curl_easy_perform2 = keepTransfer;
    }

    static std::vector<CURLoption> names() {
        std::vector<CURLoption> all;
        for (const SetOption& set : kept.options) {
            all.push_back(set.option);
        }
        return all;
    }
};

TEST_F(WebIfOptions, AreSetInTheirOrderBeforeTheTransfer) {
    WebIf fetcher;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(fetcher.checkVersion("3.1"), 0);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), shortReport(0, 0));
    EXPECT_EQ(names(), (std::vector<CURLoption>{
                           CURLOPT_URL, CURLOPT_FOLLOWLOCATION, CURLOPT_MAXREDIRS,
                           CURLOPT_FAILONERROR, CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA,
                           CURLOPT_USERAGENT, CURLOPT_PROTOCOLS, CURLOPT_NOSIGNAL}));
    ASSERT_EQ(kept.options.size(), 9U);
    EXPECT_EQ(kept.transfers, std::vector<std::size_t>{9});
    EXPECT_EQ(kept.options[0].text, webAddress() + std::string(VERSION_FILE));
    EXPECT_EQ(kept.options[1].number, 1);
    EXPECT_EQ(kept.options[2].number, 5);
    EXPECT_EQ(kept.options[3].number, 1);
    EXPECT_EQ(kept.receive, &WebIf::writeMemoryCallback);
    EXPECT_EQ(kept.receiver, &fetcher);
    EXPECT_EQ(kept.options[6].text, "libcurl-agent/1.0");
    EXPECT_EQ(kept.options[7].number, CURLPROTO_HTTP | CURLPROTO_HTTPS);
    EXPECT_EQ(kept.options[8].number, 1);
}

TEST_F(WebIfOptions, FrameOfThePageSetsItsAddressAlone) {
    kept.page = "<html><frame src=\"http://127.0.0.1/elsewhere\"></html>";
    check();
    ASSERT_EQ(kept.options.size(), 10U);
    EXPECT_EQ(kept.transfers, (std::vector<std::size_t>{9, 10}));
    EXPECT_EQ(kept.options[9].option, CURLOPT_URL);
    EXPECT_EQ(kept.options[9].text, "http://127.0.0.1/elsewhere");
}

TEST_F(WebIfOptions, LeaveTheTimeOutsToTheLibrary) {
    kept.page = "<html><frame src=\"http://127.0.0.1/elsewhere\"></html>";
    check();
    const std::vector<CURLoption> set = names();
    ASSERT_FALSE(set.empty());
    for (const CURLoption timeOut :
         {CURLOPT_TIMEOUT, CURLOPT_TIMEOUT_MS, CURLOPT_CONNECTTIMEOUT, CURLOPT_CONNECTTIMEOUT_MS,
          CURLOPT_LOW_SPEED_LIMIT, CURLOPT_LOW_SPEED_TIME, CURLOPT_DNS_CACHE_TIMEOUT,
          CURLOPT_ACCEPTTIMEOUT_MS, CURLOPT_MAXAGE_CONN}) {
        EXPECT_EQ(std::count(set.begin(), set.end(), timeOut), 0) << timeOut;
    }
}

}  // namespace
