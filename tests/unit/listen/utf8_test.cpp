#include "listen/utf8.h"

#include <gtest/gtest.h>

using namespace vxlisten;

namespace {

TEST(CharacterLength, CountsTheBytesOfValidCharacters) {
    EXPECT_EQ(characterLength("a", 0), 1U);
    EXPECT_EQ(characterLength("\u00E4", 0), 2U);
    EXPECT_EQ(characterLength("\u20AC", 0), 3U);
    EXPECT_EQ(characterLength("\U0001F3A7", 0), 4U);
    EXPECT_EQ(characterLength("a\u20AC", 1), 3U);
}

TEST(CharacterLength, GoesUpToTheLastCodePointAndNoFurther) {
    EXPECT_EQ(characterLength("\U0010FFFF", 0), 4U);
    EXPECT_EQ(characterLength("\xF4\x90\x80\x80", 0), 0U);
    EXPECT_EQ(characterLength("\xF5\x80\x80\x80", 0), 0U);
}

TEST(CharacterLength, RefusesOverlongFormsSurrogatesAndPieces) {
    for (const char* const text : {"\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80",
                                   "\xF0\x8F\xBF\xBF", "\xE2\x82", "\xF0\x9F\x8E"}) {
        EXPECT_EQ(characterLength(text, 0), 0U) << text;
    }
}

TEST(CharacterLength, IsNothingBehindTheEnd) {
    EXPECT_EQ(characterLength("a", 1), 0U);
    EXPECT_EQ(characterLength("", 0), 0U);
}

}  // namespace
