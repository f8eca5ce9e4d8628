#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

/// The numbers and texts of feedback records. The record classes themselves are core/feedback_records.proto.
namespace orvex {

/// A record's type, which is its payload's: the record of type T is the payload's field 16 + T. Those that the daemon
/// looks at or makes itself have a name here.
enum class FeedbackType : std::int32_t {
    unknown = 0,
    searchViewAppear = 1,
    ranking = 3,
    rankSections = 4,
    resultRanking = 5,
    result = 6,
    resultEngagement = 7,
    visibleResults = 8,
    cardEngagement = 10,
    searchStart = 12,
    searchEnd = 13,
    networkSearchStart = 14,
    networkSearchEnd = 15,
    localSearchStart = 16,
    localSearchEnd = 17,
    error = 18,
    customUnknown = 19,
    suggestionEngagement = 20,
    visibleSuggestions = 22,
    resultsReceivedAfterTimeout = 23,
    lateSectionsAppended = 24,
    sectionEngagement = 26,
    visibleSectionHeader = 27,
    sessionMissingResults = 30,
    sessionMissingSuggestions = 31,
    connectionInvalidated = 34,
    sessionEnd = 36,
    skipSearch = 38,
    cacheHit = 39,
    cbaEngagement = 40,
    customCrowdsourcing = 100,
    customBroviaAutofill = 101,
    customLumiskResultFeatures = 102,
};

/// Why a session ended; the next one says it of its predecessor.
enum class SessionEndReason : std::int32_t {
    unknown = 0,  ///< a manager's first session: nothing came before it
    noPreviousSession = 1,
    externalRequest = 2,
    sessionIdle = 3,
    maxSessionTimePassed = 4,
    guidChanged = 5,
    criticalMemory = 6,
    engagementReceived = 7,
    last = 8,  ///< the end marker
};

/// What a skip and a cache-hit record say in `trigger_event`.
enum class SkipReason : std::int32_t {
    lessThanMinimumQueryLength = 1,
    bagDisabled = 2,
    bagFetchFailed = 3,
    cacheHit = 4,
};

/// The key "type" of a record's dictionary, for instance "rank_sections"; "(unknown: N)" for a number that is none.
/// 3 and 4, and 10 and 11, share a name.
[[nodiscard]] std::string feedbackTypeName(std::int32_t type);

/// Another numbering of kinds of records, kept beside the types: a name's position is its number.
[[nodiscard]] std::span<const std::string_view> eventTypes();
[[nodiscard]] std::optional<std::string_view> eventTypeToString(std::size_t eventType);  ///< none beyond the last

/// For instance "guid_changed"; "(unknown: N)" for a number that is none.
[[nodiscard]] std::string sessionEndReasonText(std::int32_t reason);

/// The name of 1 to 3, for instance "bag_disabled"; none for another number.
[[nodiscard]] std::optional<std::string_view> skipReasonName(std::int32_t reason);

/// Whether a record of this type belongs to a query, so that its dictionary has "query_id".
[[nodiscard]] bool requiresQueryId(std::int32_t type);

}  // namespace orvex
