#include "tools/search_provider/records.h"

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "platform/uuid.h"

namespace orvex::search_provider {
namespace {

template <class Record>
Report reportOf(Record record, std::uint64_t queryId, platform::MonotonicTime now) {
    record.set_identifier(platform::newUUIDString());
    RecordOrigin origin;
    origin.now = now;
    return {.payload = orvexFeedbackWithCodable(record, std::move(origin))->payload().SerializeAsString(),
            .queryId = queryId};
}

CXResult recordOf(const Result& result) {
    CXResult record;
    record.set_identifier(result.identifier);
    record.set_query_id(result.queryId);
    return record;
}

CXSuggestion suggestionOf(const Result& result) {
    CXSuggestion suggestion;
    suggestion.set_identifier(result.identifier);
    suggestion.set_suggestion(result.name);
    return suggestion;
}

std::vector<CXResult> cardsIn(const std::vector<Result>& results) {
    std::vector<CXResult> records;
    for (const auto& result : results) {
        if (!result.url.empty()) records.push_back(recordOf(result));
    }
    return records;
}

/// One record of all cards, where there are any.
template <class Record>
std::vector<Report> reportOfCards(const std::vector<Result>& results, platform::MonotonicTime now) {
    const auto cards = cardsIn(results);
    if (cards.empty()) return {};
    Record record;
    record.mutable_results()->Assign(cards.begin(), cards.end());
    return {reportOf(std::move(record), results.front().queryId, now)};
}

}  // namespace

std::vector<Report> found(const std::vector<Result>& results, platform::MonotonicTime now) {
    const auto cards = cardsIn(results);
    if (cards.empty()) return {};
    CXRankingFeedback record;
    auto* section = record.add_sections();
    for (const auto& card : cards) *section->add_results()->mutable_result() = card;
    return {reportOf(std::move(record), results.front().queryId, now)};
}

std::vector<Report> foundTooLate(const std::vector<Result>& results, platform::MonotonicTime now) {
    return reportOfCards<CXResultsReceivedAfterTimeoutFeedback>(results, now);
}

std::vector<Report> shown(const std::vector<Result>& results, platform::MonotonicTime now) {
    auto reports = reportOfCards<CXVisibleResultsFeedback>(results, now);
    CXVisibleSuggestionsFeedback suggestions;
    for (const auto& result : results) {
        if (result.url.empty()) *suggestions.add_suggestions() = suggestionOf(result);
    }
    if (!suggestions.suggestions().empty()) {
        reports.push_back(reportOf(std::move(suggestions), results.front().queryId, now));
    }
    return reports;
}

Report picked(const Result& result, const std::string& query, platform::MonotonicTime now) {
    if (result.url.empty()) {
        CXSuggestionEngagementFeedback engagement;
        *engagement.mutable_suggestion() = suggestionOf(result);
        return reportOf(std::move(engagement), result.queryId, now);
    }
    CXResultEngagementFeedback engagement;
    *engagement.mutable_result() = recordOf(result);
    engagement.mutable_result()->set_user_input(query);
    engagement.set_title_text(result.name);
    return reportOf(std::move(engagement), result.queryId, now);
}

}  // namespace orvex::search_provider
