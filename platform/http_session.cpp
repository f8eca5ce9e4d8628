#include "platform/http_session.h"

#include <fmt/core.h>

#include <algorithm>

namespace orvex::platform {
namespace {

char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isToken(std::string_view text) {
    static constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::ranges::all_of(text, [](char c) {
        const char lower = asciiLower(c);
        return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9') || marks.find(c) != std::string_view::npos;
    });
}

bool hasControlCharacter(std::string_view text) {
    return std::ranges::any_of(text, [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

}  // namespace

bool isSameName(std::string_view a, std::string_view b) { return std::ranges::equal(a, b, {}, asciiLower, asciiLower); }

std::optional<std::string> headerValue(const HTTPHeaders& headers, std::string_view name) {
    const auto found =
        std::ranges::find_if(headers, [name](const auto& header) { return isSameName(header.first, name); });
    return found == headers.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::string> joinedHeaderValues(const HTTPHeaders& headers, std::string_view name) {
    std::optional<std::string> joined;
    for (const auto& header : headers) {
        if (!isSameName(header.first, name)) continue;
        joined = joined ? *joined + ", " + header.second : header.second;
    }
    return joined;
}

std::optional<std::string> unsendablePart(const URLRequest& request) {
    if (!isToken(request.method)) return "the method is no token";
    for (const auto& [name, value] : request.headers) {
        if (!isToken(name)) return "the name of a header is no token";
        if (hasControlCharacter(value)) return fmt::format("the header {} has a control character", name);
    }
    return std::nullopt;
}

}  // namespace orvex::platform
