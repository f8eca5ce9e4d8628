#include "network/orvex_url_request_builder.h"

#include <algorithm>

#include "daemon/orvex_logging.h"
#include "platform/text.h"

namespace orvex {
namespace {

template <class Pairs>
auto find(Pairs& pairs, std::string_view name) {
    // Most names differ in the first letter already, and looking at it costs no call.
    const char first = name.empty() ? '\0' : name.front();
    return std::ranges::find_if(pairs, [&](const auto& pair) { return pair.first[0] == first && pair.first == name; });
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

std::shared_ptr<const platform::URL> OrvexURLRequestBuilder::parsedEndpoint(std::string_view url) {
    auto components = platform::parseAcceptableURL(url);
    if (components) return std::make_shared<const platform::URL>(*std::move(components));
    OrvexLogForCategory(OrvexLoggingCategory::request).error("endpoint refused: {}", components.error().text);
    return nullptr;
}

std::optional<OrvexURLRequestBuilder> OrvexURLRequestBuilder::requestBuilderWithURL(std::string_view url) {
    auto endpoint = parsedEndpoint(url);
    return endpoint ? std::optional(OrvexURLRequestBuilder(std::move(endpoint))) : std::nullopt;
}

OrvexURLRequestBuilder::OrvexURLRequestBuilder(std::shared_ptr<const platform::URL> endpoint)
    : _endpoint(std::move(endpoint)) {
    _queryItems.reserve(32);
    _httpHeaders.reserve(16);
    if (_endpoint->query) forceQueryItemsFromArray(platform::decodeQuery(*_endpoint->query));
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

std::string OrvexURLRequestBuilder::_query() const {
    std::vector<const platform::QueryItem*> sorted;  // the items are larger than what it takes to sort them
    sorted.reserve(_queryItems.size());
    std::size_t bytes = 0;
    for (const auto& item : _queryItems) {
        sorted.push_back(&item);
        bytes += item.first.size() + item.second.size() + 2;
    }
    std::ranges::sort(sorted, {}, &platform::QueryItem::first);
    std::string query;
    query.reserve(bytes + bytes / 2);  // most of it needs no escape
    for (const auto* item : sorted) {
        if (!query.empty()) query += '&';
        query += platform::percentEncode(item->first);
        query += '=';
        query += platform::percentEncode(item->second);
    }
    return query;
}

platform::URLRequest OrvexURLRequestBuilder::createMutableUrlRequest() && {
    platform::URL url = *_endpoint;
    url.query = _queryItems.empty() ? std::nullopt : std::optional(_query());
    platform::URLRequest request;
    request.url = url.absoluteString();
    request.headers = std::move(_httpHeaders);
    return request;
}

}  // namespace orvex
