#include "platform/text_search.h"

#include <unicode/brkiter.h>
#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/stsearch.h>
#include <unicode/tblcoll.h>
#include <unicode/unistr.h>

#include <memory>

namespace orvex::platform {
namespace {

icu::UnicodeString fromUTF8(std::string_view text) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

/// Null where ICU's data is missing.
std::unique_ptr<icu::RuleBasedCollator> collatorIgnoringCase(const std::string& locale) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(icu::Locale(locale.c_str()), status));
    auto* ruleBased = dynamic_cast<icu::RuleBasedCollator*>(collator.get());
    if (U_FAILURE(status) || ruleBased == nullptr) return nullptr;
    (void)collator.release();
    ruleBased->setStrength(icu::Collator::SECONDARY);  // marks count, case does not
    return std::unique_ptr<icu::RuleBasedCollator>(ruleBased);
}

}  // namespace

bool containsIgnoringCase(std::string_view text, std::string_view part, const std::string& locale) {
    if (text.empty() || part.empty()) return false;  // ICU refuses to search in or for nothing
    const auto collator = collatorIgnoringCase(locale);
    if (!collator) return false;
    UErrorCode status = U_ZERO_ERROR;
    icu::StringSearch search(fromUTF8(part), fromUTF8(text), collator.get(), nullptr, status);
    return U_SUCCESS(status) && search.first(status) != USEARCH_DONE && U_SUCCESS(status);
}

std::vector<std::string> lowercasedWords(std::string_view text) {
    std::vector<std::string> words;
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<icu::BreakIterator> boundaries(
        icu::BreakIterator::createWordInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) return words;
    const auto characters = fromUTF8(text);
    boundaries->setText(characters);
    for (std::int32_t begin = boundaries->first(), end = boundaries->next(); end != icu::BreakIterator::DONE;
         begin = end, end = boundaries->next()) {
        if (boundaries->getRuleStatus() < UBRK_WORD_NONE_LIMIT) continue;  // blanks and punctuation
        auto word = characters.tempSubStringBetween(begin, end);
        word.toLower(icu::Locale::getRoot()).toUTF8String(words.emplace_back());
    }
    return words;
}

}  // namespace orvex::platform
