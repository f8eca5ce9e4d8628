#pragma once

#include <boost/json/fwd.hpp>
#include <cstddef>
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

/// One answer of the server, kept for the completed query that it answers. Immutable. The body is shared with the other
/// answers that came in it, and each is charged the whole.
struct CachedResultSet {
    /// `resultSet` is one element of the decoded body; its values of a wrong kind count as absent, and an infinite
    /// "max_age" as none. `now` is when it came.
    CachedResultSet(std::string_view typedInput, const platform::URLRequest& request,
                    const boost::json::object& resultSet, std::string networkUUID, platform::Body body,
                    platform::MonotonicTime now);

    [[nodiscard]] std::size_t cost() const { return data ? data->size() : 0; }

    const std::string input;        ///< as typed, in lower case
    const std::string query;        ///< the completed query, in lower case; may be empty
    const std::size_t inputLength;  ///< UTF-16 code units, as the next
    const std::size_t queryLength;
    const std::optional<platform::MonotonicTime> expireTime;  ///< none: stays good
    const std::string uuid;                                   ///< of the network search that brought it
    const double uiScale;                                     ///< 0: the request named none
    const float completionScore;
    const platform::Body data;
    const RequestVariant variant;
};

}  // namespace orvex
