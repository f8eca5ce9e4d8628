#include "platform/language_tagger.h"

// The library's header needs it and does not include it.
#include <cstdio>
// Then:
#include <cld2/public/compact_lang_det.h>
#include <cld2/public/encodings.h>

#include <algorithm>
#include <climits>

namespace orvex::platform {
namespace {

constexpr std::size_t maxBytes = 64 * 1024;  // more of a text does not make its language clearer

/// The library's code, which for a few languages is an old one.
std::string isoCode(CLD2::Language language) {
    const std::string_view code = CLD2::LanguageCode(language);
    if (code == "iw") return "he";
    if (code == "jw") return "jv";
    return std::string(code);
}

bool isLanguage(CLD2::Language language) {
    // Codes that begin with xx name a script, not a language.
    return language != CLD2::UNKNOWN_LANGUAGE && !std::string_view(CLD2::LanguageCode(language)).starts_with("xx");
}

}  // namespace

std::optional<std::string> languageTag(std::string_view utf8) {
    utf8 = utf8.substr(0, maxBytes);
    CLD2::Language languages[3] = {};
    int percents[3] = {};
    double scores[3] = {};
    CLD2::ResultChunkVector chunks;
    int textBytes = 0;
    int validBytes = 0;
    bool isReliable = false;
    const CLD2::CLDHints noHints = {nullptr, nullptr, CLD2::UNKNOWN_ENCODING, CLD2::UNKNOWN_LANGUAGE};
    const auto summary = CLD2::ExtDetectLanguageSummaryCheckUTF8(utf8.data(), static_cast<int>(utf8.size()), true,
                                                                 &noHints, 0, languages, percents, scores, &chunks,
                                                                 &textBytes, &isReliable, &validBytes);
    if (!isLanguage(summary)) return std::nullopt;
    const auto first = chunks.empty() ? summary : static_cast<CLD2::Language>(chunks.front().lang1);
    return isLanguage(first) ? std::optional(isoCode(first)) : std::nullopt;
}

}  // namespace orvex::platform
