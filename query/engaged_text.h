#pragma once

#include <string>
#include <string_view>

namespace orvex {

/// The form in which a completion is looked up: Japanese text as it is; any other in lower case, without diacritics,
/// decomposed with compatibility mapping. So "creme" finds "Crème".
[[nodiscard]] std::string normalizedForMatching(std::string_view utf8);

/// Texts that begin with a prefix lie between it and this. What goes on with a character beyond U+FFEE, such as an
/// emoji, does not: the range is a part of the format.
[[nodiscard]] std::string endOfPrefixRange(std::string_view prefix);

}  // namespace orvex
