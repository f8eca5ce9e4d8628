#include "platform/text.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <limits>

namespace orvex::platform {
namespace {

TEST(Text, LengthCountsUTF16Units) {
    EXPECT_EQ(utf16Length(""), 0u);
    EXPECT_EQ(utf16Length("abc"), 3u);
    EXPECT_EQ(utf16Length("é"), 1u);
    EXPECT_EQ(utf16Length("日本"), 2u);
    EXPECT_EQ(utf16Length("😀a"), 3u);
    EXPECT_EQ(utf16Length("e\u0301"), 2u);
}

TEST(Text, EachMalformedByteCountsAsOne) {
    EXPECT_EQ(utf16Length("a\xFFz"), 3u);
    EXPECT_EQ(utf16Length("\xE6\x97"), 2u);          // breaks off
    EXPECT_EQ(utf16Length("\xE6\x97z"), 3u);         // broken by another character
    EXPECT_EQ(utf16Length("\xED\xA0\x80"), 3u);      // a surrogate
    EXPECT_EQ(utf16Length("\xC0\xAF"), 2u);          // overlong
    EXPECT_EQ(utf16Length("\xF4\x90\x80\x80"), 4u);  // above U+10FFFF
}

TEST(Text, ValidityIsThatOfRFC3629) {
    for (const auto* text : {"", "abc", "é", "\uD7FF", "\uE000", "\uFFFF", "\U00010000", "\U0010FFFF"}) {
        EXPECT_TRUE(isValidUTF8(text)) << text;
    }
    for (const auto* text : {"\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF5\x80\x80\x80",
                             "abc\xC3", "\xC3(", "\xFE"}) {
        EXPECT_FALSE(isValidUTF8(text));
    }
}

TEST(Text, LowerCasingIsFullAndKnowsNoLanguage) {
    EXPECT_EQ(lowercased("MediaType 9"), "mediatype 9");
    EXPECT_EQ(lowercased("ÄÖÜ ẞ"), "äöü ß");
    EXPECT_EQ(lowercased("ΟΔΟΣ"), "οδος");        // a final sigma
    EXPECT_EQ(lowercased("İ"), "i\u0307");        // one character becomes two
    EXPECT_EQ(lowercased("TITLE I"), "title i");  // not the Turkish dotless one
    EXPECT_EQ(lowercased("É\xFF"), "é\xFF");
}

TEST(Text, RunsOfDigitsCompareAsIntegersOfAnyLength) {
    EXPECT_GT(compareNumerically("12", "9"), 0);
    EXPECT_LT(compareNumerically("1.9.3", "1.10"), 0);
    EXPECT_EQ(compareNumerically("1.007", "1.7"), 0);
    EXPECT_EQ(compareNumerically("0", "000"), 0);
    EXPECT_LT(compareNumerically("99999999999999999999999998", "99999999999999999999999999"), 0);
    EXPECT_GT(compareNumerically("100000000000000000000", "99999999999999999999"), 0);
    EXPECT_LT(compareNumerically("12", "12a"), 0);
    EXPECT_LT(compareNumerically("", "0"), 0);
    EXPECT_EQ(compareNumerically("", ""), 0);
    EXPECT_LT(compareNumerically("9", "a"), 0);
}

TEST(Text, TheRestComparesByUTF16Unit) {
    EXPECT_LT(compareNumerically("B", "a"), 0);
    EXPECT_LT(compareNumerically("é", "日"), 0);
    EXPECT_LT(compareNumerically("\U0001F600", "\uFF5E"), 0);  // a surrogate comes before U+E000 and up
    EXPECT_LT(compareNumerically("\U0001F600", "\U0001F601"), 0);
    EXPECT_GT(compareNumerically("\U0001F600", "\uD7FF"), 0);
}

TEST(Text, DecimalsAreShortestWithoutExponent) {
    EXPECT_EQ(shortestDecimal(0), "0");
    EXPECT_EQ(shortestDecimal(-0.0), "0");
    EXPECT_EQ(shortestDecimal(1), "1");
    EXPECT_EQ(shortestDecimal(-2.5), "-2.5");
    EXPECT_EQ(shortestDecimal(0.1), "0.1");
    EXPECT_EQ(shortestDecimal(1700000000), "1700000000");
    EXPECT_EQ(shortestDecimal(1700000000.125), "1700000000.125");
    EXPECT_EQ(shortestDecimal(1e21), "1000000000000000000000");
    EXPECT_EQ(shortestDecimal(1e-7), "0.0000001");
}

TEST(Text, DecimalsReadBackTheSameAtTheEndsOfTheRange) {
    using Limits = std::numeric_limits<double>;
    for (const double value : {Limits::max(), Limits::lowest(), Limits::min(), Limits::denorm_min(), 1.0 / 3}) {
        const auto text = shortestDecimal(value);
        double read = 0;
        std::from_chars(text.data(), text.data() + text.size(), read);
        EXPECT_EQ(read, value);
        EXPECT_EQ(text.find('e'), std::string::npos);
    }
}

TEST(Text, WhatCouldForgeALineIsEscaped) {
    EXPECT_EQ(escaped("plain é 日 \\", 100), "plain é 日 \\");
    EXPECT_EQ(escaped("a\r\nb\tc\x7F", 100), "a\\x0D\\x0Ab\\x09c\\x7F");
    EXPECT_EQ(escaped(std::string_view("\0", 1), 100), "\\x00");
    EXPECT_EQ(escaped("\u0085\u2028", 100), "\\xC2\\x85\\xE2\\x80\\xA8");
    EXPECT_EQ(escaped("\xFFz", 100), "\\xFFz");
}

TEST(Text, EscapedTextIsCutBetweenCharacters) {
    EXPECT_EQ(escaped("abc", 3), "abc");
    EXPECT_EQ(escaped("abcd", 3), "abc…");
    EXPECT_EQ(escaped("abé", 3), "ab…");
    EXPECT_EQ(escaped("a\n", 4), "a…");
    EXPECT_EQ(escaped("a", 0), "…");
    EXPECT_EQ(escaped("", 0), "");
}

TEST(Text, MarksThatAreDiacriticsGoAndMarksThatSpellStay) {
    EXPECT_EQ(withoutDiacritics("Crème brûlée, n\u0303andu\u0301"), "Creme brulee, nandu");
    EXPECT_EQ(withoutDiacritics("Việt"), "Viet");
    EXPECT_EQ(withoutDiacritics("กินข้าวมั่ว"), "กินขาวมัว");  // tone marks go, vowels stay
    EXPECT_EQ(withoutDiacritics("हिन्दी"), "हिनदी");      // the virama goes, vowels stay
    EXPECT_EQ(withoutDiacritics("한글^`"), "한글^`");
    EXPECT_EQ(withoutDiacritics("a\xFF"), "a\uFFFD");
    EXPECT_EQ(withoutDiacritics(std::string_view("é\0é", 5)), std::string_view("e\0e", 3));
}

}  // namespace
}  // namespace orvex::platform
