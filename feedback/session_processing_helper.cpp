#include "feedback/session_processing_helper.h"

namespace orvex {
namespace {

/// The message as one of that class, null when it is none.
template <class Record>
const Record* as(const google::protobuf::Message& codable) {
    return codable.GetDescriptor() == Record::descriptor() ? static_cast<const Record*>(&codable) : nullptr;
}

}  // namespace

void SessionProcessingHelper::process(const google::protobuf::Message& codable) {
    if (const auto* ranking = as<CXRankingFeedback>(codable)) {
        _announceSections(ranking->sections());
    } else if (const auto* rankSections = as<CXRankSectionsFeedback>(codable)) {
        _announceSections(rankSections->sections());
    } else if (const auto* late = as<CXLateSectionsAppendedFeedback>(codable)) {
        _announceSections(late->sections());
    } else if (const auto* resultRanking = as<CXResultRankingFeedback>(codable)) {
        _announce(resultRanking->result());
    } else if (const auto* result = as<CXResultFeedback>(codable)) {
        _announce(result->result());
    } else if (const auto* received = as<CXResultsReceivedAfterTimeoutFeedback>(codable)) {
        for (const auto& one : received->results()) _announce(one);
    } else if (const auto* engagement = as<CXResultEngagementFeedback>(codable)) {
        _use(engagement->result());
    } else if (const auto* visible = as<CXVisibleResultsFeedback>(codable)) {
        for (const auto& one : visible->results()) _use(one);
    } else if (const auto* shown = as<CXVisibleSuggestionsFeedback>(codable)) {
        for (const auto& one : shown->suggestions()) _knownSuggestions.insert(one.identifier());
    } else if (const auto* engaged = as<CXSuggestionEngagementFeedback>(codable)) {
        _use(engaged->suggestion());
    }
}

template <class Sections>
void SessionProcessingHelper::_announceSections(const Sections& sections) {
    for (const auto& section : sections) {
        for (const auto& ranking : section.results()) _announce(ranking.result());
    }
}

void SessionProcessingHelper::_use(const CXResult& result) {
    if (result.identifier().empty() || !_knownResults.insert(result.identifier()).second) return;
    _missingResults.push_back(result);
}

void SessionProcessingHelper::_use(const CXSuggestion& suggestion) {
    if (suggestion.identifier().empty() || !_knownSuggestions.insert(suggestion.identifier()).second) return;
    _missingSuggestions.push_back(suggestion);
}

}  // namespace orvex
