#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include "core/client_name.h"
#include "core/http_description.h"
#include "core/json.h"
#include "core/orx_bag.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "network/bag_controller.h"
#include "network/orx_network_request_factory.h"
#include "platform/counters.h"
#include "platform/dispatch.h"
#include "platform/text.h"
#include "query/client_state.h"
#include "query/query_cache.h"
#include "query/query_feedback.h"
#include "query/query_on_its_way.h"

// The road of a search, in its order. What stops it early answers at once; everything after the dispatch happens on the
// query session's delivery thread, with the state held by the completion.

namespace orvex {
namespace {

const platform::Logger& searchLog() { return OrvexLogForCategory(OrvexLoggingCategory::search); }
const platform::Logger& protocolLog() { return OrvexLogForCategory(OrvexLoggingCategory::protocol); }

constexpr std::uint32_t didGoToSearchEvent = 23;
constexpr std::string_view OrvexSearchAggdKey = "com.kelvar.orvexd.search";

}  // namespace

struct ClientState::SearchOnItsWay : QueryOnItsWay {
    std::string queryString;
    std::string userAgent;
};

void ClientState::search(ORXSearchRequest request, platform::MonotonicTime arrival, ORXReplyCallback reply) {
    searchLog().log("session {} performing query[{}] {}, reply {}", _identifier, request.queryId,
                    platform::privately(request.queryString), reply ? "given" : "(null)");
    if (const auto name = clientShortName()) _assembly.counters().add(createAggdKey(*name, "keystrokes"));

    if (!_ensureBag(arrival)) {
        searchLog().error("Bag fetch failed, can't complete non-cached query {}.",
                          platform::privately(request.queryString));
        reply(request.queryId, std::nullopt, ORXError(ORXErrorCode::timeout, "timeout"));
        _feedback.skipped(_recorded(request.queryId), SkipReason::bagFetchFailed, request.queryString);
        return;
    }
    const auto bound = _boundBag();
    if (!bound || _isDisabled(request, *bound->bag, reply)) return;
    reply = _offerLocalCompletions(request, *bound->bag, std::move(reply));
    if (_isTooShort(request, *bound->bag, reply)) return;
    if (request.triggerEvent == didGoToSearchEvent) {
        _feedback.didGoToSearch(_recordedWithUserGUID(request.queryId), request);
    }

    const auto& factory = _assembly.requestFactory();
    auto httpRequest =
        factory ? factory->searchRequest(request, *bound->bag, _currentUserGUID(), fieldMaskFor(bound->userAgent))
                : std::nullopt;
    if (!httpRequest) {
        searchLog().error("query[{}] cannot be sent: the bag names no endpoint for it", request.queryId);
        reply(request.queryId, std::nullopt, std::nullopt);
        return;
    }
    if (protocolLog().enabled(platform::LogLevel::standard)) {
        protocolLog().log("request: {} header: {}", describedURL(httpRequest->url),
                          describedHeaders(httpRequest->headers));
    }
    if (const auto entry = _queryCache ? _queryCache->getRequest(request, &*httpRequest) : nullptr) {
        _replyFromCache(request, *httpRequest, *entry, reply);
        return;
    }
    if (!_mayAskServer()) {
        std::optional<ORXReply> local;
        if (!request.completionCacheSuggestions.empty()) {
            local.emplace(ORXReply{.scale = request.scale, .localSuggestions = request.completionCacheSuggestions});
        }
        reply(request.queryId, std::move(local), std::nullopt);
        return;
    }
    _dispatchSearch(std::move(request), *std::move(httpRequest), bound->userAgent, std::move(reply));
}

void ClientState::_replyFromCache(const ORXSearchRequest& request, const platform::URLRequest& httpRequest,
                                  const CachedResultSet& entry, ORXReplyCallback& reply) {
    reply(request.queryId,
          ORXReply{.scale = request.scale,
                   .data = entry.response->data,
                   .httpRequest = std::nullopt,
                   .httpResponse = std::nullopt,
                   .geoSessionEntityString = _geoSessionEntity(httpRequest),
                   .localSuggestions = {}},
          std::nullopt);
    if (const auto name = clientShortName()) _assembly.counters().add(createAggdKey(*name, "ondevicecachehits"));
    _feedback.answeredFromCache(_recorded(request.queryId), request, entry);
}

bool ClientState::_isDisabled(const ORXSearchRequest& request, const ORXBag& bag, ORXReplyCallback& reply) const {
    if (bag.isEnabled()) return false;
    searchLog().log("no search, bag disabled");
    reply(request.queryId, std::nullopt, std::nullopt);
    _feedback.skipped(_recorded(request.queryId), SkipReason::bagDisabled, request.queryString);
    return true;
}

bool ClientState::_isTooShort(const ORXSearchRequest& request, const ORXBag& bag, ORXReplyCallback& reply) const {
    if (!request.completionCacheSuggestions.empty()) return false;
    if (platform::utf16Length(request.queryString) >= bag.minimumQueryLength()) return false;
    searchLog().debug("query[{}] input '{}' less than {}", request.queryId, platform::privately(request.queryString),
                      bag.minimumQueryLength());
    reply(request.queryId, std::nullopt, std::nullopt);
    _feedback.skipped(_recorded(request.queryId), SkipReason::lessThanMinimumQueryLength, request.queryString);
    return true;
}

void ClientState::_dispatchSearch(ORXSearchRequest request, platform::URLRequest httpRequest, std::string userAgent,
                                  ORXReplyCallback reply) {
    searchLog().log("Dispatching network request for (id, query): ({}, {})", request.queryId,
                    platform::privately(request.queryString));
    const auto networkSearch = _startSearchEventForRequest(httpRequest,
                                                           {.queryId = request.queryId,
                                                            .input = request.queryString,
                                                            .triggerEvent = request.triggerEvent,
                                                            .cindoraStatus = _cindoraStatus()},
                                                           userAgent);
    const bool mayUseProxy = fieldMaskFor(userAgent) == FieldMask::none;
    SearchOnItsWay search{QueryOnItsWay(request, httpRequest, std::move(reply)), std::move(request.queryString),
                          std::move(userAgent)};
    search.geoSessionEntity = _geoSessionEntity(httpRequest);
    search.networkSearch = networkSearch;
    const auto task = _assembly.urlSession().dataTask(
        std::move(httpRequest), [self = shared_from_this(), search = std::move(search)](
                                    platform::Body data, std::optional<platform::URLResponse> response,
                                    std::optional<platform::TransportError> error) mutable {
            self->_finishSearch(search, QueryResult(std::move(data), std::move(response), std::move(error)));
        });
    const auto& factory = _assembly.requestFactory();
    networkSearch->setTask(task, factory && mayUseProxy ? factory->enableCindora(*task) : std::nullopt);
    task->resume();
    _assembly.counters().add(OrvexSearchAggdKey);
    if (factory) factory->setPerformedSearch();
    _markNetworkRequest();
}

void ClientState::_finishSearch(SearchOnItsWay& search, const QueryResult& result) {
    if (const auto agent = userAgent()) _recordSearchResult(*agent, result.statusCode());
    searchLog().log("Got network response for (id, query): ({}, {})", search.queryId,
                    platform::privately(search.queryString));
    if (protocolLog().enabled(platform::LogLevel::standard)) {
        protocolLog().log("resp: {}", describedResponse(result.response));
    }
    const auto failure = whyNoAnswer(result);
    if (!failure) _cacheResponse(result, search);
    _finish(search, result, failure);
    if (!failure) _followForcedFetch(*result.response);
}

void ClientState::_cacheResponse(const QueryResult& result, const SearchOnItsWay& search) {
    if (!_queryCache || search.queryString.empty()) return;
    if (!result.decoded()) return;
    const auto response =
        std::make_shared<const CachedResponse>(search.queryString, search.httpRequest, search.networkSearch->uuid(),
                                               result.data, _assembly.dispatcher().now());
    for (auto& entry : resultSetsIn(*result.decoded(), response)) _queryCache->set(std::move(entry));
}

void ClientState::_followForcedFetch(const platform::URLResponse& response) {
    const auto header = platform::headerValue(response.headers, "X-Kelvar-ForceFetch");
    if (!header) return;
    const auto hints = parseJSON(*header, kReplyJSONDepth);
    if (!hints || !hints->is_object()) {
        searchLog().error("Failed to deserialize X-Kelvar-ForceFetch header data into a dictionary: {}",
                          hints ? std::string("not a dictionary") : hints.error().text);
        return;
    }
    if (const auto& controller = _assembly.bagController()) controller->forceFetchBag(hints->get_object());
}

void ClientState::_recordSearchResult(const std::string& userAgent, std::int64_t statusCode) {
    _assembly.counters().add(createAggdKey(userAgent, "fedapicall.serverstatus") + std::to_string(statusCode));
}

}  // namespace orvex
