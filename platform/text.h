#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Text is UTF-8. Folding is locale-independent and ICU's; these are pure functions, those over ICU are defined in
/// platform/linux.
namespace orvex::platform {

/// Length in UTF-16 code units, the unit of every length rule. A malformed byte counts as one (it would be U+FFFD).
[[nodiscard]] std::size_t utf16Length(std::string_view utf8);
[[nodiscard]] bool isASCII(std::string_view bytes);
[[nodiscard]] bool isValidUTF8(std::string_view bytes);
[[nodiscard]] std::string wellFormed(std::string_view bytes);   ///< each malformed byte as U+FFFD
[[nodiscard]] bool hasControlCharacter(std::string_view text);  ///< U+0000 to U+001F and U+007F

/// Full lower-casing (ICU), for any language alike. Malformed bytes stay as they are. Less than 2 GiB.
[[nodiscard]] std::string lowercased(std::string_view utf8);

/// Without the marks that are diacritics (accents, vowel points, tone marks), wherever they stand in the text; marks
/// that spell, such as Thai and Indic vowels, stay. The rest comes back canonically composed. Less than 1 GiB.
[[nodiscard]] std::string withoutDiacritics(std::string_view utf8);

/// Unicode's compatibility decomposition (NFKD, UAX #15); malformed bytes become U+FFFD. Less than 1 GiB.
[[nodiscard]] std::string compatibilityDecomposed(std::string_view utf8);

/// Runs of ASCII digits compare as integers of any length, the rest by UTF-16 code unit. <0, 0 or >0.
[[nodiscard]] int compareNumerically(std::string_view a, std::string_view b);

/// Shortest decimal that reads back the same, without exponent; whole numbers without ".0". For dates and scores on the
/// wire. Finite numbers only.
[[nodiscard]] std::string shortestDecimal(double value);

/// Text for a log or an error message: control characters, line ends (U+2028 and U+2029 too) and malformed bytes as
/// \xNN, byte by byte. Where that is longer than `maxBytes` it is cut there, on a character boundary, and "…" follows.
[[nodiscard]] std::string escaped(std::string_view text, std::size_t maxBytes);

}  // namespace orvex::platform
