#include "core/settings.h"

#include <array>

namespace orvex {
namespace {

using enum SettingKind;

constexpr auto table = std::to_array<Setting>({
    {setting::networkSearchDisabled, boolean},
    {setting::feedbackDisabled, boolean},
    {setting::locationDisabled, boolean},
    {setting::disableLocalCompletions, boolean},
    {setting::diagnosticsAndUsage, boolean},
    {setting::bagURL, text},
    {setting::debugParameters, text},
    {setting::alwaysOnTophit, boolean},
    {setting::noParallax, boolean},
    {setting::useCindora, boolean, 1},
    {setting::screenScale, number},
    {setting::mapsEnvironment, text},
    {setting::mapsClientMetadata, text},
    {setting::silhouette, text},
    {setting::lookupDisabled, boolean},
    {setting::flightUseDebugData, boolean},
    {setting::flightDebugDataLocation, text},
    {setting::noQueryCache, boolean},
    {setting::persistSessions, boolean},
    {setting::sharedSession, boolean, 1},
    {setting::sessionSizeLimit, integer, 2097152},
    {setting::sessionMaxAge, integer, 172800},
    {setting::sessionSoftLimit, integer, 600},
    {setting::sessionIdleTime, integer, 180},
    {setting::feedbackFlushDisabled, boolean},
    {setting::developerID, text},
    {setting::traceEnabled, boolean},
    {setting::sessions, kept},
    {setting::downloadResources, kept},
    {setting::appWhitelistSignature, kept},
    {setting::firstUseOfTheDay, kept},
    {setting::lookupSuggestionsDisabled, boolean},
});

}  // namespace

std::span<const Setting> settings() { return table; }

platform::PropertyDictionary registeredSettings() {
    platform::PropertyDictionary values;
    for (const auto& [key, kind, registered] : table) {
        if (registered == 0) continue;
        values.emplace(key, kind == boolean ? platform::PropertyValue(true) : platform::PropertyValue(registered));
    }
    return values;
}

}  // namespace orvex
