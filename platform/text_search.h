#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Searching in text as people do. Text is UTF-8 of less than 1 GiB, malformed bytes are U+FFFD. Pure functions over
/// ICU, defined in platform/linux.
namespace orvex::platform {

/// Whether `part` occurs in `text`, whatever the case, with letters compared as the locale does ("de_DE"; an unknown
/// one as the root locale). An empty part occurs nowhere.
[[nodiscard]] bool containsIgnoringCase(std::string_view text, std::string_view part, const std::string& locale);

/// The words of the text in order, lower-cased (UAX #29, with dictionaries for scripts that put no blanks between
/// words); without what stands between them.
[[nodiscard]] std::vector<std::string> lowercasedWords(std::string_view text);

}  // namespace orvex::platform
