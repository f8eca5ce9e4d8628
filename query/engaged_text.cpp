#include "query/engaged_text.h"

#include "platform/japanese_text.h"
#include "platform/text.h"

namespace orvex {

std::string normalizedForMatching(std::string_view utf8) {
    if (platform::containsJapanese(utf8)) return std::string(utf8);
    return platform::compatibilityDecomposed(platform::withoutDiacritics(platform::lowercased(utf8)));
}

std::string endOfPrefixRange(std::string_view prefix) { return std::string(prefix) + "\uFFEE"; }

}  // namespace orvex
