#include "query/query_feedback.h"

#include <utility>

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/orx_request.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "feedback/client_session_manager_protocol.h"
#include "platform/dispatch.h"
#include "platform/user_defaults.h"
#include "platform/uuid.h"
#include "query/cached_result_set.h"

namespace orvex {
namespace {

constexpr std::int32_t engagedCompletionsIndex = 7;  // of a local search

}  // namespace

QueryFeedback::QueryFeedback(Assembly& assembly, std::shared_ptr<ClientSessionManagerProtocol> sessionManager)
    : _assembly(assembly),
      _ownSessionManager(std::move(sessionManager)) {}

const std::shared_ptr<ClientSessionManagerProtocol>& QueryFeedback::sessionManager() const {
    return _ownSessionManager ? _ownSessionManager : _assembly.clientSessionManager();
}

void QueryFeedback::skipped(const RecordedQuery& query, SkipReason why, std::string_view input) const {
    CXSkipSearchFeedback skip;
    skip.set_trigger_event(static_cast<std::int32_t>(why));
    skip.set_input(std::string(input));
    _add(skip, query);
}

void QueryFeedback::answeredFromCache(const RecordedQuery& query, const ORXSearchRequest& request,
                                      const CachedResultSet& entry) const {
    CXCacheHitFeedback hit;
    hit.set_trigger_event(static_cast<std::int32_t>(SkipReason::cacheHit));
    hit.set_input(request.queryString);
    hit.set_uuid(entry.response->uuid);
    _add(hit, query);
}

void QueryFeedback::didGoToSearch(const RecordedQuery& query, const ORXSearchRequest& request) const {
    CXDidGoToSearchFeedback gone;
    gone.set_input(request.queryString);
    gone.set_endpoint(static_cast<std::int32_t>(SearchEndpoint::search));
    _add(gone, query);
}

std::string QueryFeedback::localSearchBegan(const RecordedQuery& query, const ORXSearchRequest& request) const {
    CXStartLocalSearchFeedback start;
    start.set_identifier(platform::newUUIDString());
    start.set_query_id(request.queryId);
    start.set_input(request.queryString);
    start.set_trigger_event(static_cast<std::int32_t>(request.triggerEvent));
    start.set_index_type(engagedCompletionsIndex);
    _add(start, query);
    return start.identifier();
}

void QueryFeedback::localSearchEnded(const RecordedQuery& query, const std::string& identifier) const {
    CXEndLocalSearchFeedback end;
    end.set_identifier(identifier);
    _add(end, query);
}

void QueryFeedback::_add(const google::protobuf::Message& codable, const RecordedQuery& query) const {
    const auto& manager = sessionManager();
    if (!manager) return;
    auto record = orvexFeedbackWithCodable(
        codable, {.queryId = static_cast<std::int64_t>(query.queryId),
                  .userGuid = query.userGuid,
                  .userAgent = query.userAgent.value_or(""),
                  .developerID = _assembly.userDefaults().string(setting::developerID).value_or(""),
                  .now = _assembly.dispatcher().now()});
    manager->addOrvexFeedback(std::move(record), RecordReceipt());
}

NetworkSearch::NetworkSearch(const QueryFeedback& feedback, const platform::URLRequest& request,
                             const NetworkSearchOccasion& occasion, const RecordedQuery& query)
    : _feedback(feedback),
      _uuid(platform::newUUIDString()) {
    _feedback._add(startNetworkSearchFeedback(_uuid, request, occasion), query);
}

void NetworkSearch::setTask(const std::shared_ptr<platform::URLSessionTask>& task,
                            std::optional<std::string> proxyURL) {
    _task = task;
    _proxyURL = std::move(proxyURL);
}

void NetworkSearch::endNetworkFeedback(const RecordedQuery& query, Answer answer,
                                       const boost::json::value* rawResponse) {
    auto end = endNetworkSearchFeedback(_uuid, _outcome(answer));
    if (rawResponse != nullptr) readServersAccount(*rawResponse, end);
    if (_proxyURL) tellConnection(*_proxyURL, end);
    _feedback._add(end, query);
}

void NetworkSearch::failSearchFeedback(const RecordedQuery& query, Answer answer,
                                       const std::optional<ORXError>& error) {
    _feedback._add(endNetworkSearchFeedback(_uuid, _outcome(answer)), query);
    _feedback._add(errorFeedback(error), query);
}

NetworkSearchOutcome NetworkSearch::_outcome(Answer answer) {
    const auto task = _task.lock();
    return {.responseSize = answer.size,
            .statusCode = answer.statusCode,
            .timing = task ? task->timingData() : std::map<std::string, double>()};
}

}  // namespace orvex
