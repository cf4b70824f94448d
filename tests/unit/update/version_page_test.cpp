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

// Whatever comes, the results lie within the page.
TEST(VersionPage, RandomPagesStayWithinTheirBytes) {
    const unsigned seed = std::random_device()();
    RecordProperty("seed", std::to_string(seed));
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string pieces[] = {"frame src", "\"", "3.2", "\r", "\n", "\0"s, "http://a/b", "x"};
    for (int round = 0; round < 20000; ++round) {
        std::string page;
        for (auto count = random() % 12; count > 0; --count) {
            page += pieces[random() % std::size(pieces)];
        }
        for (const std::string_view part :
             {firstLine(page.data(), page.size()), frameAddress(page.data(), page.size())}) {
            ASSERT_TRUE(part.empty() || (part.data() >= page.data() &&
                                         part.data() + part.size() <= page.data() + page.size()));
            ASSERT_EQ(part.find('\0'), std::string_view::npos);
        }
    }
}

}  // namespace
