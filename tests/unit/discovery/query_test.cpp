#include "discovery/query.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace {

std::uint16_t portFor(const char* environment) {
    setenv("VELANTRIX_SERVER_PORT", environment, 1);
    const std::uint16_t port = discoveryPort();
    unsetenv("VELANTRIX_SERVER_PORT");
    return port;
}

TEST(DiscoveryPort, IsTheDefaultWithoutAnEnvironment) {
    unsetenv("VELANTRIX_SERVER_PORT");
    EXPECT_EQ(discoveryPort(), 59011);
}

TEST(DiscoveryPort, IsOneAboveTheEnvironmentsPort) {
    EXPECT_EQ(portFor("7000"), 7001);
    EXPECT_EQ(portFor("0"), 1);
    EXPECT_EQ(portFor("7000abc"), 7001);
    EXPECT_EQ(portFor("0x1000"), 1);
}

TEST(DiscoveryPort, IsReducedModulo65536) {
    EXPECT_EQ(portFor("65535"), 0);
    EXPECT_EQ(portFor("65536"), 1);
    EXPECT_EQ(portFor("72536"), 7001);
    EXPECT_EQ(portFor("9223372036854775807"), 0);
    EXPECT_EQ(portFor("99999999999999999999999"), 0);
}

TEST(DiscoveryPort, IgnoresValuesThatDoNotStartWithADigit) {
    for (const char* const value : {"", "abc", "-5", "+7000", " 7000", "x7000"}) {
        EXPECT_EQ(portFor(value), 59011) << '"' << value << '"';
    }
}

TEST(DiscoveryQueryForms, OnlyExactLengthsAndBytesCount) {
    const std::string second = "VelantrixQuery2";
    for (std::size_t length = 0; length <= second.size(); ++length) {
        const DiscoveryQuery query = recognizeQuery(second.data(), length);
        const DiscoveryQuery expected = length == 15   ? DiscoveryQuery::ToSenderSocket
                                        : length == 14 ? DiscoveryQuery::ToFixedPort
                                                       : DiscoveryQuery::None;
        EXPECT_EQ(query, expected) << length;
    }
    for (std::size_t position = 0; position < second.size(); ++position) {
        std::string changed = second;
        changed[position] = static_cast<char>(changed[position] ^ 0x20);
        EXPECT_EQ(recognizeQuery(changed.data(), changed.size()), DiscoveryQuery::None);
    }
    EXPECT_EQ(recognizeQuery("VelantrixQuery2", 16), DiscoveryQuery::None);
}

TEST(ControlBytes, EveryByteValueIsMaskedOrKept) {
    for (int value = 1; value < 256; ++value) {
        char text[] = {static_cast<char>(value), 'k', '\0'};
        maskControlBytes(text);
        const bool control = value < 0x20 || value == 0x7F;
        EXPECT_EQ(text[0], control ? '?' : static_cast<char>(value)) << value;
        EXPECT_EQ(text[1], 'k');
    }
}

}  // namespace
