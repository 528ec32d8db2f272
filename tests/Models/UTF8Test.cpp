#include "Models/UTF8.h"

#include <gtest/gtest.h>

using namespace tessary;

// The first and the last character of each length, and what borders on them.
TEST(UTF8Test, TellsWellFormedTextFromTheRest) {
    for (const char* good :
         {"", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF",
          "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF", "Müller 鍵盤 🎹"})
        EXPECT_TRUE(isUTF8(good)) << escapedControls(good);
    for (const char* bad : {"\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",     // overlong
                            "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80", // surrogates, above U+10FFFF
                            "\x80", "\xF8\x88\x80\x80\x80", "a\xFF",            // no first byte
                            "\xC3", "\xE2\x82", "\xF0\x9F\x8E", "\xC3z", "\xE2\x82z", "\xF0\x9F\x8Ez"})
        EXPECT_FALSE(isUTF8(bad)) << escapedControls(bad);
}

TEST(UTF8Test, NothingInANameEndsTheLine) {
    EXPECT_EQ(escapedControls("a\nb\r\tc\x1b[31m\x7f"), "a\\nb\\r\\tc\\u{001b}[31m\\u{007f}");
    EXPECT_EQ(escapedControls("\xC2\x85\xE2\x80\xA8\xE2\x80\xA9"), "\\u{0085}\\u{2028}\\u{2029}");
    EXPECT_EQ(escapedControls("\x85\xC3"), "\\x85\\xc3");
    EXPECT_EQ(escapedControls("Jo's \\ iPad — 🎹 &_"), "Jo's \\ iPad — 🎹 &_");
    EXPECT_EQ(escapedControls(std::string_view("a\0b", 3)), "a\\u{0000}b");
}
