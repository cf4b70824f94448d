#include "update/version_page.h"

#include <random>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

std::string line(const std::string& page) {
    return std::string(firstLine(page.data(), page.size()));
}

std::string frame(const std::string& page) {
    return std::string(frameAddress(page.data(), page.size()));
}

TEST(VersionPage, LineEndsAtCrLfOrBoth) {
    EXPECT_EQ(line("3.2"), "3.2");
    EXPECT_EQ(line("3.2\rmore"), "3.2");
    EXPECT_EQ(line("3.2\nmore"), "3.2");
    EXPECT_EQ(line("3.2\r\nmore"), "3.2");
}

TEST(VersionPage, LeadingLineEndsAreSkipped) {
    EXPECT_EQ(line("\r\n\n\r3.2\n"), "3.2");
}

TEST(VersionPage, PageWithoutALineHasAnEmptyOne) {
    EXPECT_EQ(line(""), "");
    EXPECT_EQ(line("\r\n\r\n"), "");
    EXPECT_EQ(firstLine(nullptr, 0), "");
}

TEST(VersionPage, BlanksBelongToTheLine) {
    EXPECT_EQ(line(" 3.2 \n"), " 3.2 ");
}

TEST(VersionPage, TextEndsAtANulByte) {
    EXPECT_EQ(line("3.2\0.1\n"s), "3.2");
    EXPECT_EQ(line("\0"
                   "3.2\n"s),
              "");
    EXPECT_EQ(frame("0123456789\0frame src=\"http://a/b\""s), "");
}

TEST(VersionPage, FrameAddressStandsBetweenTheFirstTwoQuotes) {
    EXPECT_EQ(frame("<frame src=\"http://a/b\" name=\"c\">"), "http://a/b");
    EXPECT_EQ(frame("\"x\" frame src='y' \"http://a/b\""), "http://a/b");
    EXPECT_EQ(frame("<iframe src = \"http://a/b\""), "http://a/b");
}

TEST(VersionPage, FrameAddressNeedsEightCharacters) {
    EXPECT_EQ(frame("<frame src=\"1234567\">"), "");
    EXPECT_EQ(frame("<frame src=\"12345678\">"), "12345678");
    EXPECT_EQ(frame("<frame src=\"\" \"123456789\">"), "");
}

TEST(VersionPage, FrameAddressNeedsBothQuotes) {
    EXPECT_EQ(frame("<frame src=http://a/b>"), "");
    EXPECT_EQ(frame("<frame src=\"http://a/b>"), "");
    EXPECT_EQ(frame("\"http://a/b\" frame src"), "");
}

TEST(VersionPage, FrameMarkIsTakenAsItIsWritten) {
    EXPECT_EQ(frame("<FRAME SRC=\"http://a/b\">"), "");
    EXPECT_EQ(frame("<frame  src=\"http://a/b\">"), "");
    EXPECT_EQ(frame("<frame name=\"a\" src=\"http://a/b\">"), "");
}

TEST(VersionPage, VersionTextHasThreeToTenCharacters) {
    EXPECT_FALSE(isVersionText(""));
    EXPECT_FALSE(isVersionText("3."));
    EXPECT_TRUE(isVersionText("3.1"));
    EXPECT_TRUE(isVersionText("3.1.415926"));
    EXPECT_FALSE(isVersionText("3.1.4159265"));
}

TEST(VersionPage, VersionTextBeginsWithADecimalDigit) {
    EXPECT_TRUE(isVersionText("0ab"));
    EXPECT_TRUE(isVersionText("9ab"));
    for (const char* const text : {"v3.1", "/3.1", ":3.1", " 3.1", "-3.1", "\xb2.1"}) {
        EXPECT_FALSE(isVersionText(text)) << text;
    }
}

}  // namespace
