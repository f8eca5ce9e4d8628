#include <boost/json/monotonic_resource.hpp>
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
#include "platform/uuid.h"
#include "query/client_state.h"
#include "query/query_cache.h"
#include "query/query_on_its_way.h"

// The road of a search, in its order. What stops it early answers at once; everything after the dispatch happens on the
// query session's delivery thread, with the state held by the completion.

namespace orvex {
namespace {

const platform::Logger& searchLog() { return OrvexLogForCategory(OrvexLoggingCategory::search); }
const platform::Logger& protocolLog() { return OrvexLogForCategory(OrvexLoggingCategory::protocol); }

constexpr std::string_view OrvexSearchAggdKey = "com.kelvar.orvexd.search";

}  // namespace

struct ClientState::SearchOnItsWay : QueryOnItsWay {
    std::string queryString;
    std::string userAgent;
    std::string uuid;  ///< of this network search
};

void ClientState::search(ORXSearchRequest request, platform::MonotonicTime arrival, ORXReplyCallback reply) {
    searchLog().log("session {} performing query[{}] {}, reply {}", _identifier, request.queryId,
                    platform::privately(request.queryString), reply ? "given" : "(null)");
    if (const auto name = clientShortName()) _assembly.counters().add(createAggdKey(*name, "keystrokes"));

    if (!_ensureBag(arrival)) {
        searchLog().error("Bag fetch failed, can't complete non-cached query {}.",
                          platform::privately(request.queryString));
        reply(request.queryId, std::nullopt, ORXError(ORXErrorCode::timeout, "timeout"));
        return;
    }
    const auto bound = _boundBag();
    if (!bound || _isDisabled(request, *bound->bag, reply)) return;
    reply = _offerLocalCompletions(request, *bound->bag, std::move(reply));
    if (_isTooShort(request, *bound->bag, reply)) return;

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
    _dispatchSearch(std::move(request), *std::move(httpRequest), bound->userAgent, std::move(reply));
}

void ClientState::_replyFromCache(const ORXSearchRequest& request, const platform::URLRequest& httpRequest,
                                  const CachedResultSet& entry, ORXReplyCallback& reply) {
    reply(request.queryId,
          ORXReply{.scale = request.scale,
                   .data = entry.data,
                   .httpRequest = std::nullopt,
                   .httpResponse = std::nullopt,
                   .geoSessionEntityString = _geoSessionEntity(httpRequest),
                   .localSuggestions = {}},
          std::nullopt);
    if (const auto name = clientShortName()) _assembly.counters().add(createAggdKey(*name, "ondevicecachehits"));
}

bool ClientState::_isDisabled(const ORXSearchRequest& request, const ORXBag& bag, ORXReplyCallback& reply) {
    if (bag.isEnabled()) return false;
    searchLog().log("no search, bag disabled");
    reply(request.queryId, std::nullopt, std::nullopt);
    return true;
}

bool ClientState::_isTooShort(const ORXSearchRequest& request, const ORXBag& bag, ORXReplyCallback& reply) {
    if (!request.completionCacheSuggestions.empty()) return false;
    if (platform::utf16Length(request.queryString) >= bag.minimumQueryLength()) return false;
    searchLog().debug("query[{}] input '{}' less than {}", request.queryId, platform::privately(request.queryString),
                      bag.minimumQueryLength());
    reply(request.queryId, std::nullopt, std::nullopt);
    return true;
}

void ClientState::_dispatchSearch(ORXSearchRequest request, platform::URLRequest httpRequest, std::string userAgent,
                                  ORXReplyCallback reply) {
    searchLog().log("Dispatching network request for (id, query): ({}, {})", request.queryId,
                    platform::privately(request.queryString));
    const bool mayUseProxy = fieldMaskFor(userAgent) == FieldMask::none;
    SearchOnItsWay search{QueryOnItsWay(request, httpRequest, std::move(reply)), std::move(request.queryString),
                          std::move(userAgent), platform::newUUIDString()};
    search.geoSessionEntity = _geoSessionEntity(httpRequest);
    auto task = _assembly.urlSession().dataTask(
        std::move(httpRequest), [self = shared_from_this(), search = std::move(search)](
                                    platform::Body data, std::optional<platform::URLResponse> response,
                                    std::optional<platform::TransportError> error) mutable {
            self->_finishSearch(std::move(search), std::move(data), std::move(response), std::move(error));
        });
    const auto& factory = _assembly.requestFactory();
    if (factory && mayUseProxy) factory->enableCindora(*task);
    task->resume();
    _assembly.counters().add(OrvexSearchAggdKey);
    if (factory) factory->setPerformedSearch();
    _markNetworkRequest();
    // Asking for the bag is what renews a stale one; the next query will see it.
    if (const auto& controller = _assembly.bagController()) (void)controller->currentBag();
}

void ClientState::_finishSearch(SearchOnItsWay search, platform::Body data,
                                std::optional<platform::URLResponse> response,
                                std::optional<platform::TransportError> error) {
    if (const auto agent = userAgent()) _recordSearchResult(*agent, response ? response->statusCode : 0);
    searchLog().log("Got network response for (id, query): ({}, {})", search.queryId,
                    platform::privately(search.queryString));
    if (protocolLog().enabled(platform::LogLevel::standard)) {
        protocolLog().log("resp: {}", describedResponse(response));
    }
    if (search.failed(data, response, error)) return;
    _cacheResponse(data, search.httpRequest, search.queryString, search.uuid);
    search.answer(std::move(data), *response);
    _followForcedFetch(*response);
}

void ClientState::_cacheResponse(const platform::Body& data, const platform::URLRequest& request,
                                 std::string_view input, const std::string& uuid) {
    if (!_queryCache || input.empty()) return;
    boost::json::monotonic_resource memory(data->size());
    const auto decoded = parseJSON(*data, kReplyJSONDepth, &memory);
    const auto* elements = decoded ? decoded->if_array() : nullptr;
    if (elements == nullptr) return;
    const auto now = _assembly.dispatcher().now();
    for (const auto& element : *elements) {
        const auto* resultSet = element.if_object();
        if (resultSet == nullptr || stringMember(*resultSet, "status") == "ERROR") continue;
        _queryCache->set(std::make_shared<const CachedResultSet>(input, request, *resultSet, uuid, data, now));
    }
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
