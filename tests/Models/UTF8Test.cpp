#include "Models/UTF8.h"

#include <gtest/gtest.h>

using namespace tessary;

TEST(UTF8Test, TellsWellFormedTextFromTheRest) {
    for (const char* good : {"", "iPad", "Müller", "鍵盤", "🎹", "\xEE\x80\x80", "\xF4\x8F\xBF\xBF"})
        EXPECT_TRUE(isUTF8(good)) << good;
    for (const char* bad : {"\x80", "\xC3", "\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                            "\xF8\x88\x80\x80\x80", "a\xFF", "\xE2\x82"})
        EXPECT_FALSE(isUTF8(bad)) << bad;
}

TEST(UTF8Test, NothingInANameEndsTheLine) {
    EXPECT_EQ(escapedControls("a\nb\r\tc\x1b[31m\x7f"), "a\\nb\\r\\tc\\u{001b}[31m\\u{007f}");
    EXPECT_EQ(escapedControls("\xC2\x85\xE2\x80\xA8\xE2\x80\xA9"), "\\u{0085}\\u{2028}\\u{2029}");
    EXPECT_EQ(escapedControls("\x85\xC3"), "\\x85\\xc3");
    EXPECT_EQ(escapedControls("Jo's \\ iPad — 🎹 &_"), "Jo's \\ iPad — 🎹 &_");
    EXPECT_EQ(escapedControls(std::string_view("a\0b", 3)), "a\\u{0000}b");
}
