#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/property_value.h"

/// The keys of the user defaults, each of them in one place: what the code reads is a constant here, and has a row in
/// the table with its type and the value that holds where nothing is stored. orvexd-defaults(5) explains every one; a
/// test holds that page to the table.
namespace orvex {

namespace setting {

// The user's switches.
inline constexpr std::string_view networkSearchDisabled = "ORXNetworkSearchDisabled";
inline constexpr std::string_view feedbackDisabled = "ORXFeedbackDisabled";
inline constexpr std::string_view locationDisabled = "ORXLocationDisabled";
inline constexpr std::string_view disableLocalCompletions = "ORXDisableLocalCompletions";
inline constexpr std::string_view diagnosticsAndUsage = "ORXDiagnosticsAndUsage";

// The server and what it is asked.
inline constexpr std::string_view bagURL = "ORXBagURL";
inline constexpr std::string_view debugParameters = "ORXDebugParameters";
inline constexpr std::string_view alwaysOnTophit = "ORXAlwaysOnTophit";
inline constexpr std::string_view noParallax = "ORXNoParallax";
inline constexpr std::string_view useCindora = "ORXUseCindora";
inline constexpr std::string_view screenScale = "ORXScreenScale";
inline constexpr std::string_view mapsEnvironment = "ORXMapsEnvironment";
inline constexpr std::string_view mapsClientMetadata = "ORXMapsClientMetadata";
inline constexpr std::string_view silhouette = "silhouette";
inline constexpr std::string_view lookupDisabled = "LULookupDisabled";
inline constexpr std::string_view flightUseDebugData = "ORXFlightUseDebugData";
inline constexpr std::string_view flightDebugDataLocation = "ORXFlightDebugDataLocation";

// Memory.
inline constexpr std::string_view noQueryCache = "ORXNoQueryCache";
inline constexpr std::string_view persistSessions = "ORXPersistSessions";

// Feedback.
inline constexpr std::string_view sharedSession = "ORXSharedSession";
inline constexpr std::string_view sessionSizeLimit = "ORXSessionSizeLimit";
inline constexpr std::string_view sessionMaxAge = "ORXSessionMaxAge";
inline constexpr std::string_view sessionSoftLimit = "ORXSessionSoftLimitOverride";
inline constexpr std::string_view sessionIdleTime = "ORXSessionIdleTimeOverride";
inline constexpr std::string_view feedbackFlushDisabled = "ORXFeedbackFlushDisabled";
inline constexpr std::string_view developerID = "ORXDevID";

inline constexpr std::string_view traceEnabled = "TraceEnabled";

// Kept by the daemon.
inline constexpr std::string_view sessions = "sessions";
inline constexpr std::string_view downloadResources = "download_resources";
inline constexpr std::string_view appWhitelistSignature = "ORXAppWhitelistSignature";
inline constexpr std::string_view firstUseOfTheDay = "OrvexFirstUseOfTheDay_";  ///< the client's name follows

// Of the settings shared with lookup programs.
inline constexpr std::string_view lookupSuggestionsDisabled = "LookupSuggestionsDisabled";

}  // namespace setting

enum class SettingKind : std::uint8_t {
    boolean,
    integer,
    number,
    text,
    kept,  ///< written by the daemon itself
};

struct Setting {
    std::string_view key;
    SettingKind kind;
    std::int64_t registered = 0;  ///< of a boolean 0 or 1; the other kinds but integers have none
};

[[nodiscard]] std::span<const Setting> settings();

/// The values that are registered at start: those that are not what an absent key reads as anyway.
[[nodiscard]] platform::PropertyDictionary registeredSettings();

}  // namespace orvex
