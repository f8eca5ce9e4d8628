#include "daemon/feedback_payload.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>

#include "core/client_name.h"
#include "core/constants.h"
#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/feedback_vocabulary.h"
#include "core/orx_bag.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/completion_feature_feedback.h"
#include "daemon/orvex_logging.h"
#include "feedback/client_session.h"
#include "feedback/client_session_manager_protocol.h"
#include "platform/counters.h"
#include "platform/text.h"
#include "platform/user_defaults.h"
#include "query/client_state.h"
#include "query/engaged_completion_cache.h"

namespace orvex {
namespace {

constexpr std::array viewAppearEventsThatWarm = {2, 5, 6, 9, 10, 11, 22, 23, 24};
constexpr int maxFeatureReportsOfARecord = 64;

/// What kind of result was shown or engaged.
enum ResultType : std::int32_t { serverResult = 1, firstTitled = 9, lastTitled = 14, titledOnLumisk = 17 };

const platform::Logger& feedbackLog() { return OrvexLogForCategory(OrvexLoggingCategory::feedback); }

/// One payload on its road.
class PayloadRoad {
public:
    PayloadRoad(Assembly& assembly, ClientState& state)
        : _assembly(assembly),
          _state(state),
          _bag(state.bag()),
          _clientShortName(state.clientShortName()),
          _client(engagedClientNumber(_clientShortName)),
          _featureFeedback(assembly, _bag.get()) {}

    void warmIfNeeded(const CXFeedbackPayload& payload) const;
    void drawConsequences(const CXFeedbackPayload& payload) const;

private:
    void _count(std::string_view what) const;
    void _resultsWereVisible(const CXVisibleResultsFeedback& feedback) const;
    void _resultWasEngaged(const CXResultEngagementFeedback& feedback) const;
    void _checkIntent(const CXResult& result) const;
    void _resultWasEngagedOnLumisk(const CXResultEngagementFeedback& feedback) const;
    void _resultWasEngagedInBrovia(const CXResultEngagementFeedback& feedback) const;
    void _addCompletion(const std::string& completion, const CXResult& result, int origin) const;

    Assembly& _assembly;
    ClientState& _state;
    const std::shared_ptr<const ORXBag> _bag;
    const std::optional<std::string> _clientShortName;
    const std::int64_t _client;
    const CompletionFeatureFeedback _featureFeedback;
};

void PayloadRoad::warmIfNeeded(const CXFeedbackPayload& payload) const {
    if (!payload.has_search_view_appear()) return;
    const auto& appeared = payload.search_view_appear();
    if (appeared.is_on_lock_screen()) return;
    if (std::ranges::count(viewAppearEventsThatWarm, appeared.view_appear_event()) > 0) _state.warm();
}

void PayloadRoad::drawConsequences(const CXFeedbackPayload& payload) const {
    if (payload.has_visible_results()) _resultsWereVisible(payload.visible_results());
    if (payload.has_suggestion_engagement()) _count("querysuggestion.engagements");
    if (payload.has_result_engagement()) _resultWasEngaged(payload.result_engagement());
}

void PayloadRoad::_count(std::string_view what) const {
    if (_clientShortName) _assembly.counters().add(createAggdKey(*_clientShortName, what));
}

void PayloadRoad::_resultsWereVisible(const CXVisibleResultsFeedback& feedback) const {
    const auto client = _client == engagedByBrovia ? engagedByBrovia : engagedByLumisk;
    int reports = 0;
    for (const auto& result : feedback.results()) {
        if (result.type() != serverResult) continue;
        if (++reports > maxFeatureReportsOfARecord) {
            _assembly.counters().add("com.kelvar.orvexd.customfeedback.engaged_completion.toomanyresults");
            return;
        }
        _featureFeedback.sendForResult(result, client, CompletionFeatureFeedback::Engaged::no);
    }
}

void PayloadRoad::_resultWasEngaged(const CXResultEngagementFeedback& feedback) const {
    if (feedback.result().is_top_hit()) _count("tophit.engagements");
    if (feedback.result().type() == serverResult) _count("orvex.engagements");
    if (_client == engagedByOthers) return;
    _checkIntent(feedback.result());
    if (!_bag || !_bag->smartHistoryEnabled()) return;
    if (_client == engagedByLumisk) {
        _resultWasEngagedOnLumisk(feedback);
    } else {
        _resultWasEngagedInBrovia(feedback);
    }
}

/// There is no intent store to tell of it here; what it could not be told is worth a line all the same.
void PayloadRoad::_checkIntent(const CXResult& result) const {
    if (!result.user_input().empty() && !result.completed_query().empty()) return;
    const auto shown = [](const std::string& text) { return text.empty() ? std::string_view("(null)") : text; };
    feedbackLog().error("invalid input for intent creation, inputString = {}, queryString = {}",
                        platform::privately(shown(result.user_input())),
                        platform::privately(shown(result.completed_query())));
}

void PayloadRoad::_resultWasEngagedOnLumisk(const CXResultEngagementFeedback& feedback) const {
    const auto& result = feedback.result();
    if (result.type() != serverResult && result.type() != titledOnLumisk) return;
    _addCompletion(result.type() == serverResult ? result.completion() : feedback.title_text(), result, 3);
    _featureFeedback.sendForResult(result, engagedByLumisk, CompletionFeatureFeedback::Engaged::yes);
}

void PayloadRoad::_resultWasEngagedInBrovia(const CXResultEngagementFeedback& feedback) const {
    const auto& result = feedback.result();
    if (result.type() >= firstTitled && result.type() <= lastTitled) {
        _addCompletion(feedback.title_text(), result, 2);
        return;
    }
    if (!result.section_bundle_identifier().starts_with("com.kelvar.orvex") || result.completion().empty()) return;
    _addCompletion(result.completion(), result, 1);
    _featureFeedback.sendForResult(result, engagedByBrovia, CompletionFeatureFeedback::Engaged::yes);
}

void PayloadRoad::_addCompletion(const std::string& completion, const CXResult& result, int origin) const {
    EngagedCompletionCache::sharedInstance(_assembly)->addCompletion({.completion = completion,
                                                                      .input = result.user_input(),
                                                                      .origin = origin,
                                                                      .client = _client,
                                                                      .maxRows = _bag->smartHistoryMaxRows()});
}

template <class T>
using Repeated = google::protobuf::RepeatedPtrField<T>;

std::uint64_t queryIdOfFirst(const Repeated<CXResult>& results) { return results.empty() ? 0 : results[0].query_id(); }

std::uint64_t queryIdOfFirst(const Repeated<CXSectionRanking>& sections) {
    const bool none = sections.empty() || sections[0].results().empty();
    return none ? 0 : sections[0].results(0).result().query_id();
}

/// The query that the record itself says it is about; 0 when it says none.
std::uint64_t queryIdOf(const CXFeedbackPayload& payload) {
    switch (FeedbackType(payload.type())) {
        case FeedbackType::ranking:
            return queryIdOfFirst(payload.ranking().sections());
        case FeedbackType::lateSectionsAppended:
            return queryIdOfFirst(payload.late_sections_appended().sections());
        case FeedbackType::searchStart:
            return payload.start_search().query_id();
        case FeedbackType::networkSearchStart:
            return payload.start_network_search().query_id();
        case FeedbackType::localSearchStart:
            return payload.start_local_search().query_id();
        case FeedbackType::resultsReceivedAfterTimeout:
            return queryIdOfFirst(payload.results_received_after_timeout().results());
        case FeedbackType::sectionEngagement:
            return queryIdOfFirst(payload.section_engagement().section().results());
        case FeedbackType::visibleSectionHeader:
            return queryIdOfFirst(payload.visible_section_header().section().results());
        default:
            return 0;
    }
}

/// Tells the client and, in a session of its own, the server.
void refuse(Assembly& assembly, std::string_view reason, std::string_view message, platform::BusReply& reply) {
    const ORXError error(ORXErrorCode::internal, std::string(reason));
    if (const auto session = ClientSession::createFeedbackSessionFromError(error, assembly)) session->sessionComplete();
    feedbackLog().error("{}", message);
    reply.fail(kORXInternalError, reason);
}

void refuseUndecoded(Assembly& assembly, PayloadFault fault, platform::BusReply& reply) {
    switch (fault) {
        case PayloadFault::tooLarge:
            return reply.fail(platform::bus_error::limitsExceeded, "payload: more than 1 MiB");
        case PayloadFault::notUTF8:
            return reply.fail(platform::bus_error::invalidArgs, "payload: text that is not UTF-8");
        case PayloadFault::undecodable:
            return refuse(assembly, "Couldn't deserialize feedback protobuf",
                          "Failed deserializing _CXFeedbackPayload.", reply);
    }
}

RecordReceipt receiptAnswering(platform::BusReply reply) {
    return RecordReceipt([reply = std::move(reply)](const std::optional<ORXError>& error) mutable {
        if (error) {
            reply.fail(kORXInternalError, error->reason.value_or(error->description()));
        } else {
            reply.answer({});
        }
    });
}

}  // namespace

void reportFeedbackPayload(Assembly& assembly, const std::shared_ptr<ClientState>& state,
                           const ReportedPayload& reported, platform::BusReply reply) {
    if (!state) return refuse(assembly, "client state nil", "state must not be nil", reply);
    if (reported.bytes.empty()) return reply.answer({});
    auto payload = decodeFeedbackPayload(reported.bytes);
    if (!payload) return refuseUndecoded(assembly, payload.error(), reply);
    const PayloadRoad road(assembly, *state);
    road.warmIfNeeded(*payload);
    const auto manager = state->sessionManager();
    if (!manager) return refuse(assembly, "session manager nil", "session manager nil", reply);
    road.drawConsequences(*payload);

    const auto queryId = reported.queryId != 0 ? reported.queryId : queryIdOf(*payload);
    auto record = orvexFeedbackWithPayload(
        *std::move(payload), {.queryId = static_cast<std::int64_t>(queryId),
                              .userGuid = {},
                              .userAgent = state->userAgent().value_or(""),
                              .developerID = assembly.userDefaults().string(setting::developerID).value_or(""),
                              .now = assembly.dispatcher().now()});
    manager->addOrvexFeedback(std::move(record), receiptAnswering(std::move(reply)));
}

}  // namespace orvex
