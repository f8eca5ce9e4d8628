#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvex {

/// The short name of a client: the first of "brovia", "lumisk", "vocant", "lookup", "missiv", "gazel", "coreprompta",
/// "aerotrak", "orvexd" that occurs, in any letter case, in an identifier or user agent.
std::optional<std::string> extractClientNameFromString(std::string_view text);

/// "brovia", "lumisk" or "unknown"; the last for no user agent too.
std::string_view getClientFromUserAgent(const std::optional<std::string>& userAgent);

/// "com.kelvar.orvexd.PREFIX.SUFFIX", the name of a client's counter.
std::string createAggdKey(std::string_view prefix, std::string_view suffix);

}  // namespace orvex
