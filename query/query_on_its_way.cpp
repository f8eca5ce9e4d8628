#include "query/query_on_its_way.h"

#include "core/http_description.h"
#include "daemon/orvex_logging.h"
#include "platform/text.h"

namespace orvex {
namespace {

const platform::Logger& searchLog() { return OrvexLogForCategory(OrvexLoggingCategory::search); }

}  // namespace

QueryOnItsWay::QueryOnItsWay(const ORXRequest& request, platform::URLRequest sent, ORXReplyCallback callback)
    : queryId(request.queryId),
      scale(request.scale),
      verboseReply(request.verboseReply),
      httpRequest(std::move(sent)),
      reply(std::move(callback)) {}

bool QueryOnItsWay::failed(const platform::Body& data, const std::optional<platform::URLResponse>& response,
                           const std::optional<platform::TransportError>& error) {
    if (!data || error) {
        const auto toClient = error ? std::optional(clientError(*error)) : std::nullopt;
        searchLog().error("error with request {}", toClient ? toClient->description() : "(null)");
        fail(toClient);
        return true;
    }
    if (response && response->isHTTP) return false;
    searchLog().error("not http response? {}", response ? describedURL(response->url) : "(null)");
    fail(ORXError(ORXErrorCode::internal, "invalid response class"));
    return true;
}

void QueryOnItsWay::answer(platform::Body data, const platform::URLResponse& response) {
    ORXReply answer{.scale = scale,
                    .data = std::move(data),
                    .httpRequest = std::nullopt,
                    .httpResponse = std::nullopt,
                    .geoSessionEntityString = std::move(geoSessionEntity),
                    .localSuggestions = {}};
    if (verboseReply) {
        answer.httpRequest = std::move(httpRequest);
        answer.httpResponse = response;
    }
    reply(queryId, std::move(answer), std::nullopt);
}

ORXError clientError(const platform::TransportError& error) { return {kORXURLErrorDomain, error.code, error.reason}; }

FieldMask fieldMaskFor(std::string_view userAgent) {
    const bool messaging = platform::lowercased(userAgent).find("missiv") != std::string::npos;
    return messaging ? FieldMask::withoutLocation : FieldMask::none;
}

}  // namespace orvex
