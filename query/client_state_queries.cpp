#include <fmt/format.h>

#include <algorithm>
#include <boost/json/value.hpp>

#include "core/http_description.h"
#include "core/json.h"
#include "core/orx_bag.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "network/orx_network_request_factory.h"
#include "network/orx_retryable_network_request.h"
#include "platform/dispatch.h"
#include "platform/text.h"
#include "platform/user_defaults.h"
#include "query/cached_result_set.h"
#include "query/client_state.h"
#include "query/flight_debug_data.h"
#include "query/query_on_its_way.h"

// The roads of the five queries that are no search. None of them uses a cache, has a least length, or is counted. They
// differ in their words, in whether they are tried again, and in what counts as an answer: a zero-keyword query, a
// lookup and a flight query hand over whatever body came, more results and cards only a JSON list with status 200.

namespace orvex {
namespace {

const platform::Logger& searchLog() { return OrvexLogForCategory(OrvexLoggingCategory::search); }
const platform::Logger& protocolLog() { return OrvexLogForCategory(OrvexLoggingCategory::protocol); }

constexpr std::uint32_t retriesOfAQuery = 3;
constexpr std::uint32_t lookupEvent = 11;
constexpr std::uint32_t flightEvent = 20;

void logRequest(std::string_view what, const platform::URLRequest& request) {
    if (!protocolLog().enabled(platform::LogLevel::standard)) return;
    protocolLog().log("{}: {} header: {}", what, describedURL(request.url), describedHeaders(request.headers));
}

/// Half a second before the client would give up; none when the bag does not say when that is.
std::optional<platform::MonotonicTime> expiryOfRetries(const ORXBag& bag, platform::MonotonicTime now) {
    const auto& timeout = bag.searchRenderTimeout();
    if (!timeout) return std::nullopt;
    constexpr double longest = 1e9;
    const std::chrono::duration<double> left(std::min(*timeout / 1000, longest) - 0.5);
    return now + std::chrono::duration_cast<std::chrono::nanoseconds>(left);
}

/// Why an answer is no list of results.
struct NoList {
    ORXError error;
    bool undecodable = false;  ///< else it has another status, is not HTTP's, or is JSON of another kind
};

std::optional<NoList> whyNoList(const QueryResult& result) {
    if (result.error) return NoList{clientError(*result.error)};
    if (!result.response || !result.response->isHTTP)
        return NoList{ORXError(ORXErrorCode::internal, "invalid response class")};
    if (result.statusCode() != 200)
        return NoList{ORXError(ORXErrorCode::internal, fmt::format("status code {}", result.statusCode()))};
    const auto& decoded = result.decoded();
    if (!decoded) return NoList{ORXError(ORXErrorCode::internal, decoded.error().text), true};
    if (!decoded->is_array()) return NoList{ORXError(ORXErrorCode::internal, "invalid response class")};
    return std::nullopt;
}

std::string_view bodyText(const platform::Body& data) {
    return data && platform::isValidUTF8(*data) ? std::string_view(*data) : std::string_view("(null)");
}

}  // namespace

/// The words of one kind of query in the log.
struct ClientState::QueryTexts {
    std::string_view bagFailed;
    std::string_view disabled;
    std::string_view dispatching = {};
    std::string_view gotResponse = {};
};

struct ClientState::Dispatch {
    NetworkSearchOccasion occasion;
    std::string userAgent;       ///< that the query's bag is bound to
    std::optional<Retry> retry;  ///< none: a plain task
    Check check;
};

std::optional<ClientState::BoundBag> ClientState::_bagForQuery(const QueryTexts& texts, std::uint64_t queryId,
                                                               std::string_view input, platform::MonotonicTime arrival,
                                                               ORXReplyCallback& reply) {
    auto bound = _ensureBag(arrival) ? _boundBag() : std::nullopt;
    if (!bound) {
        searchLog().error("{}", texts.bagFailed);
        reply(queryId, std::nullopt, ORXError(ORXErrorCode::timeout, "timeout"));
        _feedback.skipped(_recorded(queryId), SkipReason::bagFetchFailed, input);
    } else if (!bound->bag->isEnabled()) {
        searchLog().log("{}", texts.disabled);
        reply(queryId, std::nullopt, std::nullopt);
        _feedback.skipped(_recorded(queryId), SkipReason::bagDisabled, input);
        bound.reset();
    }
    return bound;
}

void ClientState::_dispatchQuery(QueryOnItsWay query, Dispatch dispatch) {
    if (!_mayAskServer()) return query.fail(std::nullopt);
    const auto& factory = _assembly.requestFactory();
    const bool mayUseProxy = factory && fieldMaskFor(dispatch.userAgent) == FieldMask::none;
    const auto networkSearch = _startSearchEventForRequest(query.httpRequest, dispatch.occasion, dispatch.userAgent);
    const auto useProxy = [factory = mayUseProxy ? factory : nullptr](platform::URLSessionTask& task) {
        return factory ? factory->enableCindora(task) : std::nullopt;
    };
    const auto prepare = [&](const std::shared_ptr<platform::URLSessionTask>& task) {
        networkSearch->setTask(task, useProxy(*task));
    };
    query.networkSearch = networkSearch;
    auto httpRequest = query.httpRequest;
    query.geoSessionEntity = _geoSessionEntity(httpRequest);
    platform::DataTaskCompletion completion = [self = shared_from_this(), query = std::move(query),
                                               check = std::move(dispatch.check)](
                                                  platform::Body data, std::optional<platform::URLResponse> response,
                                                  std::optional<platform::TransportError> error) mutable {
        const QueryResult result(std::move(data), std::move(response), std::move(error));
        self->_finish(query, result, check(result));
    };
    if (dispatch.retry) {
        const auto retryable =
            dataTaskWithRetryableRequest(_assembly.urlSession(), _assembly.dispatcher(),
                                         {.httpRequest = std::move(httpRequest),
                                          .expire = dispatch.retry->expire,
                                          .delayOnFail = false,
                                          .prepareNext = useProxy},
                                         {.attempt = 1, .retriesLeft = retriesOfAQuery}, std::move(completion));
        prepare(retryable->task());
        retryable->resume();
    } else {
        const auto task = _assembly.urlSession().dataTask(std::move(httpRequest), std::move(completion));
        prepare(task);
        task->resume();
    }
}

ClientState::Check ClientState::_anyBodyCounts(std::string_view gotResponse) {
    return [gotResponse](const QueryResult& result) {
        searchLog().log("{}", gotResponse);
        return whyNoAnswer(result);
    };
}

void ClientState::_finish(QueryOnItsWay& query, const QueryResult& result, const std::optional<QueryFailure>& failure) {
    const auto recorded = _recorded(query.queryId);
    const NetworkSearch::Answer answer{.size = result.size(), .statusCode = result.statusCode()};
    if (failure) {
        query.fail(failure->error);
        query.networkSearch->failSearchFeedback(recorded, answer, failure->error);
    } else {
        query.networkSearch->endNetworkFeedback(recorded, answer, result.decoded() ? &*result.decoded() : nullptr);
        query.answer(result);
    }
}

void ClientState::zeroKeyword(const ORXZeroKeywordRequest& request, platform::MonotonicTime arrival,
                              ORXReplyCallback reply) {
    static constexpr QueryTexts texts{.bagFailed = "Bag fetch failed, can't complete non-cached zkw query.",
                                      .disabled = "no zkw, bag disabled",
                                      .dispatching = "Dispatching network request for zkw query",
                                      .gotResponse = "Got network response for zkw query"};
    searchLog().log("session {} performing zkw query, reply {}", _identifier, reply ? "given" : "(null)");
    const auto bound = _bagForQuery(texts, request.queryId, "", arrival, reply);
    if (!bound) return;
    const auto& factory = _assembly.requestFactory();
    auto built =
        factory ? factory->zeroKeywordRequest(request, *bound->bag, _currentUserGUID(), fieldMaskFor(bound->userAgent))
                : std::nullopt;
    if (_hasNoEndpoint(built, request.queryId, reply)) return;
    searchLog().log("{}", texts.dispatching);
    _dispatchQuery(QueryOnItsWay(request, *std::move(built), std::move(reply)),
                   {.occasion = {.queryId = request.queryId, .triggerEvent = request.triggerEvent},
                    .userAgent = bound->userAgent,
                    .retry = std::nullopt,
                    .check = _anyBodyCounts(texts.gotResponse)});
    _markNetworkRequest();
}

void ClientState::lookup(const ORXLookupRequest& request, platform::MonotonicTime arrival, ORXReplyCallback reply) {
    static constexpr QueryTexts texts{.bagFailed = "Bag fetch failed, can't complete non-cached lookup query.",
                                      .disabled = "no lookup, bag disabled",
                                      .dispatching = "Dispatching network request for lookup query",
                                      .gotResponse = "Got network response for lookup query"};
    searchLog().log("session {} performing lookup query, reply {}", _identifier, reply ? "given" : "(null)");
    const auto bound = _bagForQuery(texts, request.queryId, request.queryString, arrival, reply);
    if (!bound) return;
    const Retry retry{.expire = expiryOfRetries(*bound->bag, _assembly.dispatcher().now())};
    const auto& factory = _assembly.requestFactory();
    auto built = factory ? factory->lookupRequest(request, *bound->bag, _currentUserGUID()) : std::nullopt;
    if (_hasNoEndpoint(built, request.queryId, reply)) return;
    searchLog().log("{}", texts.dispatching);
    _dispatchQuery(QueryOnItsWay(request, *std::move(built), std::move(reply)),
                   {.occasion = {.queryId = request.queryId,
                                 .input = request.queryString,
                                 .triggerEvent = lookupEvent,
                                 .lookupSelectionType = request.lookupSelectionType,
                                 .cindoraStatus = _cindoraStatus()},
                    .userAgent = bound->userAgent,
                    .retry = retry,
                    .check = _anyBodyCounts(texts.gotResponse)});
    factory->setPerformedSearch();
    _markNetworkRequest();
}

void ClientState::flightSearch(const ORXFlightSearchRequest& request, platform::MonotonicTime arrival,
                               ORXReplyCallback reply) {
    static constexpr QueryTexts texts{.bagFailed = "Bag fetch failed, can't complete flight query.",
                                      .disabled = "no flights, bag disabled",
                                      .dispatching = "Dispatching network request for flight query",
                                      .gotResponse = "Got network response for flight query"};
    if (_assembly.userDefaults().boolean(setting::flightUseDebugData)) return _debugFlightSearch(request, reply);
    searchLog().log("session {} performing flight query, reply {}", _identifier, reply ? "given" : "(null)");
    const auto bound = _bagForQuery(texts, request.queryId, request.flightQuery, arrival, reply);
    if (!bound) return;
    const Retry retry{.expire = expiryOfRetries(*bound->bag, _assembly.dispatcher().now())};
    const auto& factory = _assembly.requestFactory();
    auto built = factory ? factory->flightSearchRequest(request, *bound->bag, _currentUserGUID()) : std::nullopt;
    if (_hasNoEndpoint(built, request.queryId, reply)) return;
    searchLog().log("{}", texts.dispatching);
    _dispatchQuery(QueryOnItsWay(request, *std::move(built), std::move(reply)),
                   {.occasion = {.queryId = request.queryId,
                                 .input = request.flightQuery,
                                 .triggerEvent = flightEvent,
                                 .endpoint = SearchEndpoint::flight,
                                 .cindoraStatus = _cindoraStatus()},
                    .userAgent = bound->userAgent,
                    .retry = retry,
                    .check = _anyBodyCounts(texts.gotResponse)});
    _markNetworkRequest();
}

void ClientState::_debugFlightSearch(const ORXFlightSearchRequest& request, ORXReplyCallback& reply) {
    const auto location = _assembly.userDefaults().string(setting::flightDebugDataLocation);
    ORXReply answer{.scale = request.scale,
                    .data = std::make_shared<const std::string>(debugFlightAnswer(
                        location.value_or("file:///tmp/flight_dummy_data.json"), request.flightQuery)),
                    .httpRequest = std::nullopt,
                    .httpResponse = std::nullopt,
                    .geoSessionEntityString = std::nullopt,
                    .localSuggestions = {}};
    reply(request.queryId, std::move(answer), std::nullopt);
}

void ClientState::moreResults(const ORXMoreResultsRequest& request, platform::MonotonicTime arrival,
                              ORXReplyCallback reply) {
    const auto input = findQueryParam(request.queryItems, "q").value_or("");
    const auto bound = _bagForListQuery(request, input, arrival, reply);
    if (!bound) return;
    const auto& factory = _assembly.requestFactory();
    auto built =
        factory ? factory->moreResultsRequest(request, *bound->bag, _currentUserGUID(), fieldMaskFor(bound->userAgent))
                : std::nullopt;
    if (_hasNoEndpoint(built, request.queryId, reply)) return;
    logRequest("request", *built);
    auto sentText = findQueryParam(queryItemsOf(*built), "q").value_or("");
    auto check = [](const QueryResult& result) -> std::optional<QueryFailure> {
        auto why = whyNoList(result);
        if (!why) return std::nullopt;
        searchLog().error("More results fetch failed with HTTP status code {} error {}", result.statusCode(),
                          platform::privately(bodyText(result.data)));
        return QueryFailure{std::move(why->error)};
    };
    _dispatchQuery(QueryOnItsWay(request, *std::move(built), std::move(reply)),
                   {.occasion = {.queryId = request.queryId,
                                 .input = std::move(sentText),
                                 .triggerEvent = request.triggerEvent,
                                 .cindoraStatus = _cindoraStatus()},
                    .userAgent = bound->userAgent,
                    .retry = Retry{},
                    .check = std::move(check)});
}

void ClientState::card(const ORXCardRequest& request, platform::MonotonicTime arrival, ORXReplyCallback reply) {
    const auto bound = _bagForListQuery(request, "", arrival, reply);
    if (!bound) return;
    const auto& factory = _assembly.requestFactory();
    auto built = factory && bound->bag->cardURL() ? factory->cardRequest(request, *bound->bag, _currentUserGUID())
                                                  : std::nullopt;
    if (_hasNoEndpoint(built, request.queryId, reply)) return;
    logRequest("card request", *built);
    auto check = [](const QueryResult& result) -> std::optional<QueryFailure> {
        auto why = whyNoList(result);
        if (!why) return std::nullopt;
        if (why->undecodable) {
            searchLog().error(
                "Failed to deserialize card details for into a dictionary. Error: {}. Response data: \"{}\"",
                why->error.description(), platform::privately(bodyText(result.data)));
        } else {
            searchLog().error("Card fetch failed with HTTP status code {} error {}", result.statusCode(),
                              platform::privately(bodyText(result.data)));
        }
        return QueryFailure{std::move(why->error)};
    };
    _dispatchQuery(QueryOnItsWay(request, *std::move(built), std::move(reply)),
                   {.occasion = {.queryId = request.queryId,
                                 .triggerEvent = request.triggerEvent,
                                 .endpoint = SearchEndpoint::card,
                                 .cindoraStatus = _cindoraStatus()},
                    .userAgent = bound->userAgent,
                    .retry = Retry{},
                    .check = std::move(check)});
}

std::optional<ClientState::BoundBag> ClientState::_bagForListQuery(const ORXRequest& request, std::string_view input,
                                                                   platform::MonotonicTime arrival,
                                                                   ORXReplyCallback& reply) {
    searchLog().log("session {} performing query[{}] {}, reply {}", _identifier, request.queryId,
                    platform::privately(input), reply ? "given" : "(null)");
    const auto bagFailed =
        fmt::format("Bag fetch failed, can't complete non-cached query {}.", platform::privately(input));
    return _bagForQuery({.bagFailed = bagFailed, .disabled = "no search, bag disabled"}, request.queryId, input,
                        arrival, reply);
}

bool ClientState::_hasNoEndpoint(const std::optional<platform::URLRequest>& built, std::uint64_t queryId,
                                 ORXReplyCallback& reply) {
    if (built) return false;
    searchLog().error("query[{}] cannot be sent: the bag names no endpoint for it", queryId);
    reply(queryId, std::nullopt, std::nullopt);
    return true;
}

}  // namespace orvex
