#include "platform/language_tagger.h"

#include <gtest/gtest.h>

namespace orvex::platform {
namespace {

TEST(LanguageTaggerTest, ALanguageIsToldOfASentenceAndNotOfAScrap) {
    const std::pair<std::string_view, std::optional<std::string>> cases[] = {
        {"Das Wetter ist heute sehr schön, und morgen wird es noch besser", "de"},
        {"The weather is very nice today and tomorrow it will be even better", "en"},
        {"מזג האוויר היום נעים מאוד ומחר יהיה אפילו טוב יותר", "he"},
        {"Ελληνικά", "el"},
        {"", std::nullopt},
        {"zq", std::nullopt},
        {"1234 5678 ::: &&&", std::nullopt},
        {"\xff\xfe\x80 abc", std::nullopt},
    };
    for (const auto& [text, language] : cases) EXPECT_EQ(languageTag(text), language) << text;
    EXPECT_EQ(languageTag(std::string(1 << 20, 'x')), std::nullopt);
}

}  // namespace
}  // namespace orvex::platform
