#include "core/feedback_vocabulary.h"

#include <fmt/format.h>

#include <array>

namespace orvex {
namespace {

constexpr std::string_view typeNames[] = {
    "unknown",
    "search_view_appear",
    "search_view_disappear",
    "rank_sections",
    "rank_sections",
    "result_ranking",
    "result",
    "result_engagement",
    "visible_results",
    "card_section",
    "card_engagement",
    "card_engagement",
    "search_start",
    "search_end",
    "network_search_start",
    "network_search_end",
    "local_search_start",
    "local_search_end",
    "error",
    "custom_unknown",
    "suggestion_engagement",
    "card_view_disappear",
    "visible_suggestions",
    "results_received_after_timeout",
    "late_sections_appended",
    "clear_input",
    "section_engagement",
    "visible_section_header",
    "did_go_to_site",
    "did_go_to_search",
    "session_missing_results",
    "session_missing_suggestions",
    "result_grade",
    "lookup_hint_graded",
    "connection_invalidated",
    "card_section_engagement",
    "session_end",
    "card_view_appear",
    "skip_orvex_search",
    "cache_hit",
    "cba_engagement",
    "client_timing",
};
static_assert(std::size(typeNames) == 42);

constexpr std::int32_t firstCustomType = 100;
constexpr std::string_view customTypeNames[] = {
    "custom_crowdsourcing",
    "custom_brovia_autofill",
    "custom_lumisk_result_features",
    "last_",
};

constexpr std::string_view eventTypeNames[] = {
    "visible_results",
    "network_search_start",
    "network_search_end",
    "local_search_start",
    "local_search_end",
    "search_view_appear",
    "search_view_disappear",
    "rank_sections",
    "result_engagement",
    "visible_card",
    "card_engagement",
    "error",
    "suggestion_engagement",
    "card_view_disappear",
    "search_start",
    "search_end",
    "visible_suggestions",
    "custom_unknown",
    "custom_crowdsourcing",
    "custom_brovia_autofill",
    "custom_lumisk_result_features",
    "unknown",
    "results_received_after_timeout",
    "late_sections_appended",
    "clear_input",
    "session_end",
    "skip_orvex_search",
    "section_engagement",
    "visible_section_header",
    "session_missing_results",
    "session_missing_suggestions",
    "did_go_to_site",
    "connection_invalidated",
    "result_grade",
    "did_go_to_search",
    "lookup_hint_graded",
    "card_view_appear",
    "card_section_engagement",
};
static_assert(std::size(eventTypeNames) == 38);

constexpr std::string_view reasonTexts[] = {
    "unknown",      "no_previous_session", "external_request",    "session_idle", "max_session_time_passed",
    "guid_changed", "critical_memory",     "engagement_received", "last_",
};

constexpr std::string_view skipNames[] = {"less_than_minimum_query_length", "bag_disabled", "bag_fetch_failed"};

/// The name at a number that may be any.
std::optional<std::string_view> nameAt(std::span<const std::string_view> names, std::int64_t number) {
    if (number < 0 || number >= std::ssize(names)) return std::nullopt;
    return names[static_cast<std::size_t>(number)];
}

std::string nameOrNumber(std::optional<std::string_view> name, std::int32_t number) {
    return name ? std::string(*name) : fmt::format("(unknown: {})", number);
}

}  // namespace

std::string feedbackTypeName(std::int32_t type) {
    auto name = nameAt(typeNames, type);
    if (!name) name = nameAt(customTypeNames, std::int64_t{type} - firstCustomType);
    return nameOrNumber(name, type);
}

std::span<const std::string_view> eventTypes() { return eventTypeNames; }

std::optional<std::string_view> eventTypeToString(std::size_t eventType) {
    if (eventType >= std::size(eventTypeNames)) return std::nullopt;
    return eventTypeNames[eventType];
}

std::string sessionEndReasonText(std::int32_t reason) { return nameOrNumber(nameAt(reasonTexts, reason), reason); }

std::optional<std::string_view> skipReasonName(std::int32_t reason) {
    return nameAt(skipNames, std::int64_t{reason} - 1);
}

bool requiresQueryId(std::int32_t type) {
    switch (FeedbackType{type}) {
        case FeedbackType::error:
        case FeedbackType::customUnknown:
        case FeedbackType::sessionMissingResults:
        case FeedbackType::sessionMissingSuggestions:
        case FeedbackType::connectionInvalidated:
        case FeedbackType::sessionEnd:
        case FeedbackType::customCrowdsourcing:
        case FeedbackType::customBroviaAutofill:
        case FeedbackType::customLumiskResultFeatures:
            return false;
        default:
            return true;
    }
}

}  // namespace orvex
