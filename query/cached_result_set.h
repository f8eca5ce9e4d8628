#pragma once

#include <boost/json/fwd.hpp>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/http_session.h"
#include "platform/url.h"

namespace orvex {

/// What the URL of a request asks for.
[[nodiscard]] std::vector<platform::QueryItem> queryItemsOf(const platform::URLRequest& request);

/// The value of the first item of that name.
[[nodiscard]] std::optional<std::string> findQueryParam(const std::vector<platform::QueryItem>& items,
                                                        std::string_view name);

/// What a request asks for beside its text, read from its URL: answers are good only for requests that ask alike.
struct RequestVariant {
    std::optional<std::string> qtype;
    std::optional<std::string> suggestQueries;
    std::optional<std::string> localCompletion;

    RequestVariant() = default;
    explicit RequestVariant(const platform::URLRequest& request);
    bool operator==(const RequestVariant&) const = default;
};

/// A screen scale as requests carry it, which is rounded: 1.25 is asked for as "1.2".
[[nodiscard]] double scaleOnTheWire(double scale);

/// What the answers in one body have in common.
struct CachedResponse {
    /// `arrived` is when the body came.
    CachedResponse(std::string_view typedInput, const platform::URLRequest& request, std::string networkUUID,
                   platform::Body body, platform::MonotonicTime arrived);

    const std::string input;        ///< as typed, in lower case
    const std::size_t inputLength;  ///< UTF-16 code units
    const std::string uuid;         ///< of the network search that brought it
    const double uiScale;           ///< 0: the request named none
    const RequestVariant variant;   ///< of the request
    const platform::Body data;      ///< the whole body
    const platform::MonotonicTime arrived;
};

/// One answer of the server, kept for the completed query that it answers. Immutable. What it came with is shared with
/// the other answers of that body, and each is charged the whole body.
struct CachedResultSet {
    /// `resultSet` is one element of the decoded body; its values of a wrong kind count as absent, and an infinite
    /// "max_age" as none.
    CachedResultSet(std::shared_ptr<const CachedResponse> response, const boost::json::object& resultSet);

    [[nodiscard]] std::size_t cost() const { return response->data ? response->data->size() : 0; }

    const std::shared_ptr<const CachedResponse> response;     ///< never null
    const std::string query;                                  ///< the completed query, in lower case; may be empty
    const std::size_t queryLength;                            ///< UTF-16 code units
    const std::optional<platform::MonotonicTime> expireTime;  ///< none: stays good
    const float completionScore;
};

/// The answers in `response` that may be kept: of its decoded body, a list, the elements that are no errors.
[[nodiscard]] std::vector<std::shared_ptr<const CachedResultSet>> resultSetsIn(
    const boost::json::value& decoded, const std::shared_ptr<const CachedResponse>& response);

}  // namespace orvex
