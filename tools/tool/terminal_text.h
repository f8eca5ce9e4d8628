#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace orvex::tool {

// How much of a terminal's line a text takes. Texts are valid UTF-8 without control characters; what a character takes
// is the C library's answer under the LC_CTYPE that is set (a wide one 2, a combining one 0), 1 where it has none.
// Callable from any thread.

/// Bytes of the first character of `text`, which is not empty.
[[nodiscard]] std::size_t firstCharacterBytes(std::string_view text);

[[nodiscard]] std::size_t columnsOf(std::string_view text);

/// The longest beginning of `text` that takes at most that many columns.
[[nodiscard]] std::string_view cutToColumns(std::string_view text, std::size_t columns);

/// The longest end of `text` that takes at most that many columns.
[[nodiscard]] std::string_view endWithinColumns(std::string_view text, std::size_t columns);

/// `text` in lines of at most that many columns, broken at spaces, in a word only where it alone is longer. At least
/// one column; a character that is wider than the line is left out. No lines for a text without words.
[[nodiscard]] std::vector<std::string> wrapped(std::string_view text, std::size_t columns);

}  // namespace orvex::tool
