#include "core/client_name.h"

#include <fmt/format.h>

#include <array>

#include "platform/text.h"

namespace orvex {

std::optional<std::string> extractClientNameFromString(std::string_view text) {
    static constexpr std::array<std::string_view, 9> names = {"brovia", "lumisk",      "vocant",   "lookup", "missiv",
                                                              "gazel",  "coreprompta", "aerotrak", "orvexd"};
    const std::string lower = platform::lowercased(text);
    for (const auto name : names) {
        if (lower.find(name) != std::string::npos) return std::string(name);
    }
    return std::nullopt;
}

std::string_view getClientFromUserAgent(const std::optional<std::string>& userAgent) {
    if (!userAgent) return "unknown";
    const std::string lower = platform::lowercased(*userAgent);
    if (lower.find("brovia") != std::string::npos) return "brovia";
    return lower.find("lumisk") != std::string::npos ? "lumisk" : "unknown";
}

std::string createAggdKey(std::string_view prefix, std::string_view suffix) {
    return fmt::format("com.kelvar.orvexd.{}.{}", prefix, suffix);
}

}  // namespace orvex
