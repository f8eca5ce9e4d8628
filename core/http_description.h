#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/http_session.h"

/// Requests and responses as log arguments. A URL's query and the values of headers are private arguments: they show
/// only while the log level in force is debug.
namespace orvex {

std::string describedURL(std::string_view url);
std::string describedHeaders(const platform::HTTPHeaders& headers);
std::string describedResponse(const std::optional<platform::URLResponse>& response);

}  // namespace orvex
