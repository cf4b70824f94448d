#pragma once

#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "app/base/core_pin.h"
#include "gui/Settings.h"
#include "link_substitutes.h"
#include "update/WebIf.h"
#include "update/curl_functions.h"
#include "version_server.h"

/// Another version than the program's own.
inline const std::string NEWER = VELANTRIX_VERSION "1";

/// A check on a system with libcurl whose last check was long ago, at a fixed time of day.
class WebIfCheck : public ::testing::Test {
  protected:
    static constexpr int NOW = 29000000;  ///< Minutes since the epoch.

    void SetUp() override {
        coreStage.store(CoreStage::Alive);
        linkSubstitutes = {};
        setClock(NOW);
        server.reset();
        Settings::setVersionCheckTime(0);
        Settings::setVersionCheckResponse("");
        ASSERT_EQ(WebIf::init(), 0);
    }

    void TearDown() override { linkSubstitutes = {}; }

    static void setClock(int minutes) {
        linkSubstitutes.now = static_cast<std::time_t>(minutes) * 60 + 59;
    }

    /// Runs one check; keeps what it printed.
    int check(const char* running = "3.1") {
        ::testing::internal::CaptureStdout();
        const int result = WebIf().checkVersion(running);
        printed = ::testing::internal::GetCapturedStdout();
        return result;
    }

    /// Runs one check on a version file with this body.
    int checkFile(const std::string& body, const char* running = "3.1") {
        server.answer({body});
        return check(running);
    }

    static std::string shortReport(unsigned long bytes, unsigned long length) {
        return "WebIf::checkVersion: " + std::to_string(bytes) + " bytes retrieved (" +
               std::to_string(length) + ")\n";
    }

    static std::string report(unsigned long bytes, const std::string& line,
                              const std::string& running = "3.1") {
        return "WebIf::checkVersion: " + std::to_string(bytes) + " bytes retrieved (" +
               std::to_string(line.size()) + "): " + line + " (" + running + ")\n";
    }

    static std::string failure(CURLcode code) {
        return std::string("WebIf::checkVersion: curl_easy_perform() failed: ") +
               curl_easy_strerror2(code) + "\n";
    }

    static std::string secondFailure(CURLcode code) {
        return std::string("WebIf::checkVersion: Second curl_easy_perform() failed: ") +
               curl_easy_strerror2(code) + "\n";
    }

    static constexpr const char* NEWS =
        "WebIf::checkVersion: A new version of Velantrix Server is available\n";

    VersionServer& server = VersionServer::instance();
    std::string printed;
};
