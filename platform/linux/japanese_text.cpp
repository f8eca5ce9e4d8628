#include "platform/japanese_text.h"

#include <unicode/brkiter.h>
#include <unicode/translit.h>
#include <unicode/uscript.h>
#include <unicode/utf8.h>

#include <array>
#include <cstdint>
#include <initializer_list>
#include <memory>

#include "platform/thread_annotations.h"

namespace orvex::platform {
namespace {

bool usesAnyOf(std::string_view text, std::initializer_list<UScriptCode> scripts) {
    const auto size = static_cast<std::int32_t>(text.size());
    for (std::int32_t offset = 0; offset < size;) {
        UChar32 character = 0;
        U8_NEXT(text.data(), offset, size, character);
        if (character < 0x80) continue;  // malformed (negative), or ASCII
        for (const auto script : scripts) {
            if (uscript_hasScript(character, script)) return true;
        }
    }
    return false;
}

/// ICU's word boundaries and rules for Japanese, none of which two threads may use at a time.
class Kanizer {
public:
    Kanizer() {
        UErrorCode status = U_ZERO_ERROR;
        _words.reset(icu::BreakIterator::createWordInstance(icu::Locale::getJapanese(), status));
        _toHiragana.reset(icu::Transliterator::createInstance("Any-Latin; Latin-Hiragana", UTRANS_FORWARD, status));
        if (U_FAILURE(status)) _words = nullptr;
    }

    std::string kanized(std::string_view utf8) {
        auto text = icu::UnicodeString::fromUTF8(icu::StringPiece(utf8.data(), static_cast<std::int32_t>(utf8.size())));
        if (!_words || !_toHiragana) return std::string(utf8);
        icu::UnicodeString result;
        const MutexLock lock(_mutex);
        _words->setText(text);
        for (auto begin = _words->first(), end = _words->next(); end != icu::BreakIterator::DONE;
             begin = end, end = _words->next()) {
            if (_words->getRuleStatus() == UBRK_WORD_NONE) continue;  // spaces and punctuation
            icu::UnicodeString word(text, begin, end - begin);
            _toHiragana->transliterate(word);
            result += word;
        }
        std::string inUTF8;
        return result.toUTF8String(inUTF8);
    }

private:
    Mutex _mutex;
    std::unique_ptr<icu::BreakIterator> _words;
    std::unique_ptr<icu::Transliterator> _toHiragana;
};

}  // namespace

bool containsJapanese(std::string_view utf8) {
    return usesAnyOf(utf8, {USCRIPT_HIRAGANA, USCRIPT_KATAKANA, USCRIPT_HAN});
}

bool containsKanjiOrKatakana(std::string_view utf8) { return usesAnyOf(utf8, {USCRIPT_KATAKANA, USCRIPT_HAN}); }

std::string kanize(std::string_view utf8) {
    static Kanizer kanizer;
    return kanizer.kanized(utf8);
}

}  // namespace orvex::platform
