#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/orx_error.h"
#include "platform/http_session.h"
#include "platform/url.h"

/// What clients ask and what they get. Plain values; an absent text is the empty one, an absent number 0.
namespace orvex {

struct ORXSuggestion {
    std::string suggestion;
    std::string query;
    double score = 0;
    std::uint32_t type = 0;
    std::string topicIdentifier;
    std::string fbr;  ///< the server's blob about it, base64 of a JSON object
};

/// What every kind of request has.
struct ORXRequest {
    std::uint64_t queryId = 0;  ///< echoed in the answer
    double scale = 0;           ///< the client's screen scale
    bool verboseReply = false;
    std::uint32_t triggerEvent = 0;
    std::string keyboardInputMode;
    std::vector<platform::QueryItem> queryItems;  ///< the client's own, in its order
};

struct ORXSearchRequest : ORXRequest {
    std::string queryString;
    std::string temperatureUnit;
    std::string l2Version;  ///< ranking model versions
    std::string l3Version;
    std::string topTopics;  ///< JSON text
    std::optional<ORXSuggestion> engagedSuggestion;
    std::vector<ORXSuggestion> completionCacheSuggestions;
};
struct ORXMoreResultsRequest : ORXRequest {};
struct ORXCardRequest : ORXRequest {
    std::string cardURL;
};
struct ORXZeroKeywordRequest : ORXRequest {
    std::string temperatureUnit;
};
struct ORXLookupRequest : ORXRequest {
    std::string queryString;
    std::string queryContext;  ///< the text around the selection
    std::string lookupHintDomain;
    std::uint32_t lookupSelectionType = 0;
    std::string clientContext;
};
struct ORXFlightSearchRequest : ORXRequest {
    std::string flightQuery;           ///< carrier and number
    std::optional<double> flightDate;  ///< seconds since 1970
    std::string clientContext;
};

using ORXAnyRequest = std::variant<ORXSearchRequest, ORXMoreResultsRequest, ORXCardRequest, ORXZeroKeywordRequest,
                                   ORXLookupRequest, ORXFlightSearchRequest>;

struct ORXReply {
    double scale = 0;
    platform::Body data;                                ///< the raw response body
    std::optional<platform::URLRequest> httpRequest;    ///< only when `verboseReply` was asked for
    std::optional<platform::URLResponse> httpResponse;  ///< as `httpRequest`; never from a cache
    std::optional<std::string> geoSessionEntityString;
    std::vector<ORXSuggestion> localSuggestions;
};

/// Called at most once, from any thread: query id, reply or none, error or none. One that is destroyed uncalled tells
/// the client that no reply will come.
using ORXReplyCallback =
    std::move_only_function<void(std::uint64_t queryId, std::optional<ORXReply>, std::optional<ORXError>)>;

/// What a client says of itself before it asks anything.
struct ORXSessionConfiguration {
    std::string identifier;
    std::string userAgent;
};

}  // namespace orvex
