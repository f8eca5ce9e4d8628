#pragma once

#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <memory>
#include <optional>

#include "core/orx_request.h"
#include "network/request_vocabulary.h"
#include "platform/http_session.h"
#include "platform/result.h"

namespace orvex {

class NetworkSearch;

/// How the request of a query ended, with the body decoded once for all who read it.
class QueryResult {
public:
    QueryResult(platform::Body body, std::optional<platform::URLResponse> answer,
                std::optional<platform::TransportError> failure);
    QueryResult(const QueryResult&) = delete;
    QueryResult& operator=(const QueryResult&) = delete;

    const platform::Body data;
    const std::optional<platform::URLResponse> response;
    const std::optional<platform::TransportError> error;

    [[nodiscard]] std::int64_t statusCode() const { return response ? response->statusCode : 0; }
    [[nodiscard]] std::size_t size() const { return data ? data->size() : 0; }
    /// Lives as long as this; an error where the body is no JSON.
    [[nodiscard]] const platform::Result<boost::json::value>& decoded() const { return _decoded; }

private:
    boost::json::monotonic_resource _memory;
    const platform::Result<boost::json::value> _decoded;
};

/// Why a query has no answer. Without an error: there is none to tell of.
struct QueryFailure {
    std::optional<ORXError> error;
};

/// Whether there is no answer to read: the transport failed, there is no body, or it is not HTTP's. Logged.
[[nodiscard]] std::optional<QueryFailure> whyNoAnswer(const QueryResult& result);

/// A query between its dispatch and its answer, whatever its kind: what its reply is made of, and the client that
/// waits. It answers once.
struct QueryOnItsWay {
    QueryOnItsWay(const ORXRequest& request, platform::URLRequest sent, ORXReplyCallback callback);

    void fail(std::optional<ORXError> error) { reply(queryId, std::nullopt, std::move(error)); }
    void answer(const QueryResult& result);

    std::uint64_t queryId;
    double scale;
    bool verboseReply;
    platform::URLRequest httpRequest;
    std::optional<std::string> geoSessionEntity;
    std::shared_ptr<NetworkSearch> networkSearch;  ///< its records; null before the dispatch
    ORXReplyCallback reply;
};

[[nodiscard]] ORXError clientError(const platform::TransportError& error);

/// Nobody's location goes out with a request of the messaging client.
[[nodiscard]] FieldMask fieldMaskFor(std::string_view userAgent);

}  // namespace orvex
