#include "core/http_description.h"

#include <fmt/format.h>

#include "platform/log.h"

namespace orvex {

std::string describedURL(std::string_view url) {
    const auto mark = url.find('?');
    if (mark == std::string_view::npos) return std::string(url);
    return fmt::format("{}?{}", url.substr(0, mark), platform::privately(url.substr(mark + 1)));
}

std::string describedHeaders(const platform::HTTPHeaders& headers) {
    fmt::memory_buffer text;
    for (const auto& [name, value] : headers) {
        fmt::format_to(fmt::appender(text), "{}{} = {}", text.size() == 0 ? "{" : "; ", name,
                       platform::privately(value));
    }
    return text.size() == 0 ? "{}" : fmt::to_string(text) + "}";
}

std::string describedResponse(const std::optional<platform::URLResponse>& response) {
    if (!response) return "(null)";
    return fmt::format("{} {}", response->statusCode, describedURL(response->url));
}

}  // namespace orvex
