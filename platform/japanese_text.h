#pragma once

#include <string>
#include <string_view>

/// What tells Japanese text from other text. A character counts for every script that it is used with (Unicode's script
/// extensions), so the sound mark and the long-vowel mark are Hiragana and Katakana both.
namespace orvex::platform {

/// Any Hiragana, Katakana or Han character.
[[nodiscard]] bool containsJapanese(std::string_view utf8);
[[nodiscard]] bool containsKanjiOrKatakana(std::string_view utf8);

/// The text word by word, each word's Latin transcription written in Hiragana. Slow on first use: the rules are
/// compiled then, once a process. Callable from any thread; one at a time works.
[[nodiscard]] std::string kanize(std::string_view utf8);

}  // namespace orvex::platform
