#pragma once

#include <cstdint>
#include <optional>

#include "core/orx_request.h"
#include "network/request_vocabulary.h"
#include "platform/http_session.h"

namespace orvex {

/// A query between its dispatch and its answer, whatever its kind: what its reply is made of, and the client that
/// waits. It answers once.
struct QueryOnItsWay {
    QueryOnItsWay(const ORXRequest& request, platform::URLRequest sent, ORXReplyCallback callback);

    /// Whether there is no answer to read: the transport failed, there is no body, or it is not HTTP's. Logged, and the
    /// client has been told.
    [[nodiscard]] bool failed(const platform::Body& data, const std::optional<platform::URLResponse>& response,
                              const std::optional<platform::TransportError>& error);
    void fail(std::optional<ORXError> error) { reply(queryId, std::nullopt, std::move(error)); }
    void answer(platform::Body data, const platform::URLResponse& response);

    std::uint64_t queryId;
    double scale;
    bool verboseReply;
    platform::URLRequest httpRequest;
    std::optional<std::string> geoSessionEntity;
    ORXReplyCallback reply;
};

[[nodiscard]] ORXError clientError(const platform::TransportError& error);

/// Nobody's location goes out with a request of the messaging client.
[[nodiscard]] FieldMask fieldMaskFor(std::string_view userAgent);

}  // namespace orvex
