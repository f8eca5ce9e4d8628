#include "platform/japanese_text.h"

#include <gtest/gtest.h>

namespace orvex::platform {
namespace {

TEST(JapaneseText, ACharacterCountsForEveryScriptThatUsesIt) {
    for (const auto* text : {"ひらがな", "カタカナ", "漢字", "tokyo 駅", "ー", "ｶﾅ"})
        EXPECT_TRUE(containsJapanese(text)) << text;
    for (const auto* text : {"", "tokyo", "é", "한글", "ไทย", "\xFF\xE3\x81"})
        EXPECT_FALSE(containsJapanese(text)) << text;
    EXPECT_FALSE(containsKanjiOrKatakana("ひらがな"));
    EXPECT_TRUE(containsKanjiOrKatakana("ひらガな"));
    EXPECT_TRUE(containsKanjiOrKatakana("食べる"));
}

TEST(JapaneseText, KanizedTextIsHiragana) {
    EXPECT_EQ(kanize("カタカナ"), "かたかな");
    EXPECT_EQ(kanize("sushi, カナ"), "すしかな");
    EXPECT_EQ(kanize(""), "");
    EXPECT_FALSE(containsKanjiOrKatakana(kanize("東京")));
}

}  // namespace
}  // namespace orvex::platform
