#include "platform/http_session.h"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <iomanip>
#include <locale>
#include <sstream>

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

std::optional<std::chrono::sys_seconds> parseHTTPDate(const std::string& text) {
    for (const auto* form : {"%a, %d %b %Y %H:%M:%S GMT", "%A, %d-%b-%y %H:%M:%S GMT", "%a %b %e %H:%M:%S %Y"}) {
        std::istringstream in(text);
        in.imbue(std::locale::classic());
        std::tm parts{};
        if (!(in >> std::get_time(&parts, form))) continue;
        const std::chrono::year_month_day day{std::chrono::year(parts.tm_year + 1900),
                                              std::chrono::month(static_cast<unsigned>(parts.tm_mon + 1)),
                                              std::chrono::day(static_cast<unsigned>(parts.tm_mday))};
        if (!day.ok()) return std::nullopt;
        return std::chrono::sys_days(day) + std::chrono::hours(parts.tm_hour) + std::chrono::minutes(parts.tm_min) +
               std::chrono::seconds(parts.tm_sec);
    }
    return std::nullopt;
}

std::optional<std::chrono::seconds> retryAfter(const HTTPHeaders& headers, WallTime now) {
    using std::chrono::seconds;
    constexpr seconds longest = std::chrono::hours(24);
    const auto text = headerValue(headers, "Retry-After");
    if (!text || text->empty()) return std::nullopt;
    if (text->find_first_not_of("0123456789") == std::string::npos) {
        std::int64_t count = 0;
        const auto read = std::from_chars(text->data(), text->data() + text->size(), count);
        return read.ec == std::errc() ? std::min(seconds(count), longest) : longest;
    }
    const auto date = parseHTTPDate(*text);
    if (!date) return std::nullopt;
    return std::clamp(date->time_since_epoch() - std::chrono::floor<seconds>(now.time_since_epoch()), seconds(0),
                      longest);
}

}  // namespace orvex::platform
