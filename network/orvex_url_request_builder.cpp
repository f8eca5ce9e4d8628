#include "network/orvex_url_request_builder.h"

#include <algorithm>

#include "daemon/orvex_logging.h"
#include "platform/text.h"

namespace orvex {
namespace {

template <class Pairs>
auto find(Pairs& pairs, std::string_view name) {
    return std::ranges::find(pairs, name, [](const auto& pair) -> std::string_view { return pair.first; });
}

template <class Pairs>
void force(Pairs& pairs, std::string_view name, std::string value) {
    if (auto found = find(pairs, name); found != pairs.end()) {
        found->second = std::move(value);
    } else {
        pairs.emplace_back(name, std::move(value));
    }
}

}  // namespace

std::optional<OrvexURLRequestBuilder> OrvexURLRequestBuilder::requestBuilderWithURL(std::string_view url) {
    auto components = platform::parseAcceptableURL(url);
    if (!components) {
        OrvexLogForCategory(OrvexLoggingCategory::request).error("endpoint refused: {}", components.error().text);
        return std::nullopt;
    }
    return OrvexURLRequestBuilder(std::move(*components));
}

OrvexURLRequestBuilder::OrvexURLRequestBuilder(platform::URL components) : _urlComponents(std::move(components)) {
    _queryItems.reserve(32);
    _httpHeaders.reserve(16);
    if (_urlComponents.query) forceQueryItemsFromArray(platform::decodeQuery(*_urlComponents.query));
}

bool OrvexURLRequestBuilder::containsQueryItemWithName(std::string_view name) const {
    return find(_queryItems, name) != _queryItems.end();
}

void OrvexURLRequestBuilder::forceQueryItemWithName(std::string_view name, std::string value) {
    force(_queryItems, name, std::move(value));
}

void OrvexURLRequestBuilder::forceQueryItemsFromArray(const std::vector<platform::QueryItem>& items) {
    for (const auto& [name, value] : items) forceQueryItemWithName(name, value);
}

void OrvexURLRequestBuilder::defaultQueryItemWithName(std::string_view name, std::string value) {
    if (!containsQueryItemWithName(name)) _queryItems.emplace_back(name, std::move(value));
}

bool OrvexURLRequestBuilder::containsHttpHeaderWithName(std::string_view name) const {
    return find(_httpHeaders, name) != _httpHeaders.end();
}

void OrvexURLRequestBuilder::forceHttpHeaderWithName(std::string_view name, std::string value) {
    if (platform::hasControlCharacter(value) || platform::hasControlCharacter(name)) {
        OrvexLogForCategory(OrvexLoggingCategory::request).error("header {} refused: control character", name);
        ++_refusedHeaders;
        return;
    }
    force(_httpHeaders, name, std::move(value));
}

void OrvexURLRequestBuilder::defaultHttpHeaderWithName(std::string_view name, std::string value) {
    if (!containsHttpHeaderWithName(name)) forceHttpHeaderWithName(name, std::move(value));
}

platform::URLRequest OrvexURLRequestBuilder::createMutableUrlRequest() const {
    auto items = _queryItems;
    std::ranges::sort(items, {}, &platform::QueryItem::first);
    std::string query;
    for (const auto& [name, value] : items) {
        if (!query.empty()) query += '&';
        query += platform::percentEncode(name);
        query += '=';
        query += platform::percentEncode(value);
    }
    platform::URL url = _urlComponents;
    url.query = items.empty() ? std::nullopt : std::optional(std::move(query));
    platform::URLRequest request;
    request.url = url.absoluteString();
    request.headers = _httpHeaders;
    return request;
}

}  // namespace orvex
