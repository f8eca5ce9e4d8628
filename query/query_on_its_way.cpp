#include "query/query_on_its_way.h"

#include "core/http_description.h"
#include "core/json.h"
#include "daemon/orvex_logging.h"
#include "platform/text.h"

namespace orvex {
namespace {

const platform::Logger& searchLog() { return OrvexLogForCategory(OrvexLoggingCategory::search); }

}  // namespace

QueryResult::QueryResult(platform::Body body, std::optional<platform::URLResponse> answer,
                         std::optional<platform::TransportError> failure)
    : data(std::move(body)),
      response(std::move(answer)),
      error(std::move(failure)),
      _memory(size() + 1),
      _decoded(parseJSON(data ? std::string_view(*data) : std::string_view(), kReplyJSONDepth, &_memory)) {}

std::optional<QueryFailure> whyNoAnswer(const QueryResult& result) {
    if (!result.data || result.error) {
        const auto error = result.error ? std::optional(clientError(*result.error)) : std::nullopt;
        searchLog().error("error with request {}", error ? error->description() : "(null)");
        return QueryFailure{error};
    }
    if (result.response && result.response->isHTTP) return std::nullopt;
    searchLog().error("not http response? {}", result.response ? describedURL(result.response->url) : "(null)");
    return QueryFailure{ORXError(ORXErrorCode::internal, "invalid response class")};
}

QueryOnItsWay::QueryOnItsWay(const ORXRequest& request, platform::URLRequest sent, ORXReplyCallback callback)
    : queryId(request.queryId),
      scale(request.scale),
      verboseReply(request.verboseReply),
      httpRequest(std::move(sent)),
      reply(std::move(callback)) {}

void QueryOnItsWay::answer(const QueryResult& result) {
    ORXReply answer{.scale = scale,
                    .data = result.data,
                    .httpRequest = std::nullopt,
                    .httpResponse = std::nullopt,
                    .geoSessionEntityString = std::move(geoSessionEntity),
                    .localSuggestions = {}};
    if (verboseReply) {
        answer.httpRequest = std::move(httpRequest);
        answer.httpResponse = result.response;
    }
    reply(queryId, std::move(answer), std::nullopt);
}

ORXError clientError(const platform::TransportError& error) { return {kORXURLErrorDomain, error.code, error.reason}; }

FieldMask fieldMaskFor(std::string_view userAgent) {
    const bool messaging = platform::lowercased(userAgent).find("missiv") != std::string::npos;
    return messaging ? FieldMask::withoutLocation : FieldMask::none;
}

}  // namespace orvex
