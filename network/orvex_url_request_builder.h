#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/http_session.h"
#include "platform/url.h"

namespace orvex {

/// Assembles one request from an endpoint, query items and headers, at most one of a name. What is *forced* replaces
/// what is there; a *default* gives way to it. The endpoint's own items count as forced first.
///
/// The query on the wire is in the byte order of the names, whatever the order of adding, so equal requests have equal
/// URLs. Names of headers compare exactly. A header value with a control character is left out: it could end the line
/// it stands in. Threading: one thread at a time.
class OrvexURLRequestBuilder {
public:
    /// Null, and logged, when `url` does not parse or breaks the URL rule (platform/url.h).
    [[nodiscard]] static std::shared_ptr<const platform::URL> parsedEndpoint(std::string_view url);
    /// None where that is null.
    [[nodiscard]] static std::optional<OrvexURLRequestBuilder> requestBuilderWithURL(std::string_view url);
    explicit OrvexURLRequestBuilder(std::shared_ptr<const platform::URL> endpoint);

    [[nodiscard]] bool containsQueryItemWithName(std::string_view name) const;
    void forceQueryItem(platform::QueryItem item) { forceQueryItemWithName(item.first, std::move(item.second)); }
    void forceQueryItemWithName(std::string_view name, std::string value);
    void forceQueryItemsFromArray(const std::vector<platform::QueryItem>& items);  ///< of one name the last wins
    void defaultQueryItem(platform::QueryItem item) { defaultQueryItemWithName(item.first, std::move(item.second)); }
    void defaultQueryItemWithName(std::string_view name, std::string value);

    [[nodiscard]] bool containsHttpHeaderWithName(std::string_view name) const;
    void forceHttpHeaderWithName(std::string_view name, std::string value);
    void defaultHttpHeaderWithName(std::string_view name, std::string value);
    [[nodiscard]] std::size_t refusedHeaders() const { return _refusedHeaders; }  ///< left out for their value

    /// Method, body, cache policy and time-out are the caller's to set on what it gets. The builder is used up.
    [[nodiscard]] platform::URLRequest createMutableUrlRequest() &&;

private:
    [[nodiscard]] std::string _query() const;

    std::shared_ptr<const platform::URL> _endpoint;
    std::vector<platform::QueryItem> _queryItems;  ///< a few dozen at most: searched from end to end
    platform::HTTPHeaders _httpHeaders;
    std::size_t _refusedHeaders = 0;
};

}  // namespace orvex
