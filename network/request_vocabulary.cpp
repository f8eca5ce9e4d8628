#include "network/request_vocabulary.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <boost/json/value.hpp>
#include <cmath>
#include <vector>

#include "core/json.h"
#include "core/orx_bag.h"
#include "core/orx_request.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "network/app_whitelist_signature.h"
#include "network/location_context.h"
#include "network/location_manager.h"
#include "network/orvex_url_request_builder.h"
#include "network/request_context.h"
#include "platform/language_tagger.h"
#include "platform/text.h"
#include "platform/user_defaults.h"

// One table, and one list of its names for each kind of request. What a request carries is decided nowhere else: a new
// item is a row here and its name in the lists of the requests that carry it. A misspelt name does not compile.

namespace orvex {
namespace {

using Where = VocabularyEntry::Where;
using Precedence = VocabularyEntry::Precedence;
using Value = std::optional<std::string>;

constexpr std::string_view apiKey = "tabbycat5208";

Value unlessEmpty(std::string_view text) { return text.empty() ? std::nullopt : Value(text); }

bool userDefault(const RequestInputs& inputs, std::string_view key) {
    return inputs.assembly->userDefaults().boolean(key);
}

// The query.

Value qtype(const RequestInputs& inputs) {
    if (inputs.kind == RequestKind::zeroKeyword) return "zkw";
    switch (inputs.request->triggerEvent) {
        case 22:
        case 23:
            return "explicit";
        case 24:
            return "suggest_with_results";
        case 8:
        case 10:
            return "suggested";
        default:
            return std::nullopt;
    }
}

Value suggestQueries(const RequestInputs& inputs) {
    return inputs.request->triggerEvent == 21 ? Value("withtop") : std::nullopt;
}

Value flightDate(const RequestInputs& inputs) {
    const auto& date = inputs.flight->flightDate;
    return date ? Value(platform::shortestDecimal(*date)) : std::nullopt;
}

Value temperatureUnit(const RequestInputs& inputs) {
    const auto& preferred = inputs.temperatureUnit;
    return unlessEmpty(preferred.empty() ? inputs.context->tempUnits : preferred);
}

Value lookupSelection(const RequestInputs& inputs) {
    switch (inputs.lookup->lookupSelectionType) {
        case 1:
            return "explicit";
        case 2:
            return "hint";
        default:
            return "default";
    }
}

Value languageOf(std::string_view text) { return text.empty() ? std::nullopt : platform::languageTag(text); }

Value topTopics(const RequestInputs& inputs) {
    const auto& text = inputs.search->topTopics;
    if (text.empty()) return std::nullopt;
    const auto topics = parseJSON(text, kReplyJSONDepth);
    if (topics) return compactJSON(*topics);
    OrvexLogForCategory(OrvexLoggingCategory::request).error("top topics left out: {}", topics.error().text);
    return std::nullopt;
}

// Suggestions that the client showed of late. Text, origin and score travel as three lists of the same length, joined
// with ":", so what would make them differ in length is left out of all three.

constexpr char listSeparator = ':';

Value originCode(const ORXSuggestion& suggestion) {
    switch (suggestion.type) {
        case 1:
            return "se";
        case 5:
            return "ss-" + suggestion.topicIdentifier;
        case 6:
            return "ut";
        case 7:
            return "co";
        case 8:
            return "3d";
        case 9:
            return "en";
        default:
            return std::nullopt;
    }
}

/// In the order in which the texts were first seen; of one text the best score, with its origin.
std::vector<SuggestionTold> suggestionsTold(const ORXSearchRequest& search) {
    std::vector<SuggestionTold> sent;
    for (const auto& suggestion : search.completionCacheSuggestions) {
        auto origin = originCode(suggestion);
        const std::string_view text = suggestion.suggestion;
        if (!origin || text.empty() || text.contains(listSeparator) || origin->contains(listSeparator) ||
            !std::isfinite(suggestion.score)) {
            continue;
        }
        const auto same = std::ranges::find(sent, text, &SuggestionTold::text);
        if (same == sent.end()) {
            sent.push_back({text, *std::move(origin), suggestion.score});
        } else if (suggestion.score > same->score) {
            *same = {text, *std::move(origin), suggestion.score};
        }
    }
    return sent;
}

template <class Part>
Value joinedSuggestions(const RequestInputs& inputs, Part part) {
    std::string list;
    for (const auto& suggestion : inputs.suggestions) {
        if (!list.empty()) list += listSeparator;
        list += part(suggestion);
    }
    return unlessEmpty(list);
}

Value silhouette(const RequestInputs& inputs) {
    const auto* engaged =
        inputs.search && inputs.search->engagedSuggestion ? &*inputs.search->engagedSuggestion : nullptr;
    return inputs.context->silhouetteTopics.itemValue(engaged);
}

// Where the user is. Whatever the context holds, it goes out only while the user allows it.

bool isGazel(std::string_view userAgent) { return platform::lowercased(userAgent).contains("gazel"); }

platform::LocationAuthorization authorization(const RequestInputs& inputs) {
    const auto& manager = inputs.assembly->locationManager();
    return manager ? manager->authorizationStatus() : platform::LocationAuthorization::denied;
}

LocationTold locationTold(const RequestInputs& inputs) {
    constexpr std::string_view refusedByUser = LocationContext::refusedByUser;
    const bool masked = inputs.fieldMask == FieldMask::withoutLocation;
    if (inputs.kind == RequestKind::search && isGazel(inputs.userAgent)) {
        const auto& manager = inputs.assembly->locationManager();
        const bool allowed = manager && platform::mayLocate(manager->gazelAuthorizationStatus());
        if (masked || !allowed) return {.latLng = {}, .source = refusedByUser, .movement = false};
    }
    if (masked) return {};  // only what heeds the mask is ever asked with it
    const auto status = authorization(inputs);
    const std::string_view latLng = inputs.context->geoLocationLatLng;
    if (platform::mayLocate(status)) return {latLng, inputs.context->geoLocationSource, true};
    // Not asked yet is not refused: without a location, its reason is told.
    const bool refused = status != platform::LocationAuthorization::notDetermined || !latLng.empty();
    return {{}, refused ? refusedByUser : std::string_view(inputs.context->geoLocationSource), true};
}

Value latlng(const RequestInputs& inputs) { return unlessEmpty(inputs.location.latLng); }

Value locationSource(const RequestInputs& inputs) { return unlessEmpty(inputs.location.source); }

Value routineMode(const RequestInputs& inputs) {
    const auto mode = inputs.context->routineMode;
    if (!inputs.location.movement || !mode || *mode < -1 || *mode > 1) return std::nullopt;
    return fmt::to_string(*mode + 2);
}

Value transportationMode(const RequestInputs& inputs) {
    return inputs.location.movement ? Value(fmt::to_string(inputs.context->transportationMode)) : std::nullopt;
}

/// Tells too much to travel for its own sake: only with a location.
Value appSignature(const RequestInputs& inputs) {
    const auto& controller = inputs.assembly->appWhitelistController();
    return controller && !inputs.location.latLng.empty() ? controller->whitelistSignature() : std::nullopt;
}

Value fuzzedLocation(const RequestInputs& inputs) {
    if (!inputs.includeLatLong || !platform::mayLocate(authorization(inputs))) return std::nullopt;
    return unlessEmpty(inputs.context->lookupGeoLocationLatLng);
}

// Maps.

Value mapsSession(const RequestInputs& inputs) {
    const auto& manager = inputs.assembly->locationManager();
    if (manager) return manager->mapsUserSession().nextEntity();
    OrvexLogForCategory(OrvexLoggingCategory::request)
        .error("GEOUserSessionEntity does not respond to selector sessionIDString, actual class is {}", "(null)");
    return std::nullopt;
}

Value mapsMetadata(const RequestInputs& inputs) {
    const auto& manager = inputs.assembly->locationManager();
    return manager ? unlessEmpty(manager->getMapsClientMetadata().value_or("")) : std::nullopt;
}

Value mapsEnvironment(const RequestInputs& inputs) {
    const auto& manager = inputs.assembly->locationManager();
    return manager && inputs.bag->sendGeoEnvironmentHeader() ? unlessEmpty(manager->mapsEnvironment()) : std::nullopt;
}

// The device.

Value dictionaries(const RequestInputs& inputs) {
    if (userDefault(inputs, setting::lookupDisabled)) return "off";
    return unlessEmpty(inputs.context->installedDictionaries);
}

Value managed(const RequestInputs& inputs) {
    return inputs.context->isManagedAccount || inputs.context->deviceRestricted ? Value("managed") : std::nullopt;
}

Value screenScale(const RequestInputs& inputs) {
    return inputs.request->scale > 0 ? Value(fmt::format("{:.1f}", inputs.request->scale)) : std::nullopt;
}

void addClientItems(const RequestInputs& inputs, OrvexURLRequestBuilder& builder) {
    builder.forceQueryItemsFromArray(inputs.request->queryItems);
}

void addDebugItems(const RequestInputs& inputs, OrvexURLRequestBuilder& builder) {
    builder.forceQueryItemsFromArray(inputs.context->debuggingQueryItems);
}

// clang-format off
constexpr VocabularyEntry table[] = {
    {.name = "q", .precedence = Precedence::forced, .personal = true, .source = "the query",
     .purpose = "what is searched for",
     .value = [](const RequestInputs& in) { return Value(in.queryString); }},
    {.name = "qtype", .precedence = Precedence::forced, .source = "what triggered the query",
     .purpose = "chooses suggestions, results or both", .value = qtype},
    {.name = "suggest_queries", .source = "what triggered the query",
     .purpose = "asks for suggestions with a top hit", .value = suggestQueries},
    {.name = "timestamp", .personal = true, .source = "the query", .purpose = "the day of the flight",
     .value = flightDate},
    {.name = "<query items>", .precedence = Precedence::forced, .personal = true, .source = "the client",
     .purpose = "what the client itself adds", .add = addClientItems},
    {.name = "<debug items>", .precedence = Precedence::forced, .source = "user defaults",
     .purpose = "whatever the developer who set them tests", .switchedBy = setting::debugParameters,
     .add = addDebugItems},
    {.name = "key", .source = "built in", .purpose = "tells that the daemon asks",
     .value = [](const RequestInputs&) { return Value(apiKey); }},
    {.name = "version", .source = "the bag", .purpose = "asks for this version of the bag",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.version); }},
    {.name = "agent", .source = "built in, and device information", .purpose = "tells bags of other agents apart",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.userAgent); }},
    {.name = "cindora", .source = "user defaults", .purpose = "whether a proxy configuration is of use",
     .switchedBy = setting::useCindora,
     .value = [](const RequestInputs& in) { return Value(in.assembly->useCindora() ? "1" : "0"); }},
    {.name = "card", .source = "built in", .purpose = "asks for results as cards",
     .value = [](const RequestInputs&) { return Value("1"); }},
    {.name = "alwaysSendTophit", .source = "user defaults", .purpose = "whether to send a top hit in any case",
     .switchedBy = setting::alwaysOnTophit,
     .value = [](const RequestInputs& in) { return Value(in.context->alwaysSendTophit ? "on" : "off"); }},
    {.name = "cc", .source = "time zone or locale", .purpose = "results for the country",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.context->geoDeviceCountryCode); }},
    {.name = "locale", .source = "locale", .purpose = "results in the language and manner of the user",
     .value = [](const RequestInputs& in) { return Value(in.context->localeIdentifier); }},
    {.name = "esl", .source = "preferred languages", .purpose = "texts in the system's language",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.context->effectiveSystemLanguage); }},
    {.name = "kb_ime", .source = "the query, else keyboard or locale", .purpose = "how the query was typed",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.request->keyboardInputMode); }},
    {.name = "calendar", .source = "locale", .purpose = "dates of the user's calendar",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.context->localeCalendarIdentifier); }},
    {.name = "time_zone", .source = "time zone", .purpose = "times where the user is",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.context->localTimeZoneName); }},
    {.name = "units", .source = "locale", .purpose = "measures that the user knows",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.context->localeMeasurementSystem); }},
    {.name = "temp", .source = "the query, else locale", .purpose = "temperatures that the user knows",
     .value = temperatureUnit},
    {.name = "24h", .source = "locale", .purpose = "times as the user reads them",
     .value = [](const RequestInputs& in) { return in.context->is24hDateFormat ? Value("1") : std::nullopt; }},
    {.name = "l2", .source = "the query", .purpose = "the client's ranking model",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.search->l2Version); }},
    {.name = "l3", .source = "the query", .purpose = "the client's ranking model",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.search->l3Version); }},
    {.name = "lc", .personal = true, .source = "the query", .purpose = "suggestions that were shown of late",
     .switchedBy = setting::disableLocalCompletions,
     .value = [](const RequestInputs& in) { return joinedSuggestions(in, [](const auto& one) { return one.text; }); }},
    {.name = "lco", .personal = true, .source = "the query", .purpose = "where those suggestions came from",
     .switchedBy = setting::disableLocalCompletions,
     .value = [](const RequestInputs& in) { return joinedSuggestions(in, [](const auto& one) { return one.origin; }); }},
    {.name = "lcs", .personal = true, .source = "the query", .purpose = "how well those suggestions fitted",
     .switchedBy = setting::disableLocalCompletions,
     .value = [](const RequestInputs& in) {
         return joinedSuggestions(in, [](const auto& one) { return platform::shortestDecimal(one.score); });
     }},
    {.name = "dicts", .source = "installed dictionaries", .purpose = "leaves out what the device can define itself",
     .switchedBy = setting::lookupDisabled, .value = dictionaries},
    {.name = "sil", .personal = true, .source = "user defaults, and the suggestion taken before",
     .purpose = "results on topics that the user cares about", .switchedBy = setting::silhouette, .value = silhouette},
    {.name = "latlng", .personal = true, .source = "location", .purpose = "results near the user",
     .switchedBy = setting::locationDisabled, .value = latlng},
    {.name = "geosrc", .personal = true, .source = "location", .purpose = "how good the location is, or why there is none",
     .switchedBy = setting::locationDisabled, .value = locationSource},
    {.name = "rm", .personal = true, .source = "routine", .purpose = "results that fit the user's day",
     .value = routineMode},
    {.name = "tm", .personal = true, .source = "motion", .purpose = "results for one who walks, or drives",
     .value = transportationMode},
    {.name = "mode", .source = "policy", .purpose = "leaves out what the device's owner forbids", .value = managed},
    {.name = "storefront", .source = "subscriptions", .purpose = "media that the user's shop sells",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.context->storeFrontIdentifier); }},
    {.name = "context", .personal = true, .source = "the query", .purpose = "what the client was doing",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.clientContext); }},
    {.name = "ldomain", .source = "the query", .purpose = "the domain of the hint that was followed",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.lookup->lookupHintDomain); }},
    {.name = "ltype", .source = "the query", .purpose = "how the text was selected", .value = lookupSelection},
    {.name = "qlang", .source = "the query", .purpose = "the language of the selected text",
     .value = [](const RequestInputs& in) { return languageOf(in.lookup->queryString); }},
    {.name = "lctxlang", .source = "the query", .purpose = "the language of the text around it",
     .value = [](const RequestInputs& in) { return languageOf(in.lookup->queryContext); }},
    {.name = "du_enabled", .source = "user defaults", .purpose = "whether the user shares diagnostics",
     .switchedBy = setting::diagnosticsAndUsage,
     .value = [](const RequestInputs& in) {
         return userDefault(in, setting::diagnosticsAndUsage) ? Value("1") : std::nullopt;
     }},
    {.name = "X-Kelvar-UserGuid", .where = Where::header, .personal = true, .source = "made at random, rolls",
     .purpose = "joins the requests of one stretch of use",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.userGuid); }},
    {.name = "User-Agent", .where = Where::header, .source = "the client, or the daemon's own",
     .purpose = "tells program and device type",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.userAgent); }},
    {.name = "X-Kelvar-UI-Scale", .where = Where::header, .source = "the client's screen",
     .purpose = "images of the right size", .value = screenScale},
    {.name = "X-Kelvar-Languages", .where = Where::header, .source = "preferred languages",
     .purpose = "results in languages that the user reads",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.context->preferredLanguages); }},
    {.name = "X-Kelvar-TopTopics", .where = Where::header, .personal = true, .source = "the query",
     .purpose = "ranks results by what the user does most", .value = topTopics},
    {.name = "X-Kelvar-Subscriptions", .where = Where::header, .personal = true, .source = "subscriptions",
     .purpose = "media that the user has paid for",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.context->subscriptionInfo); }},
    {.name = "X-Kelvar-Whitelisted-App-Signature", .where = Where::header, .personal = true,
     .source = "installed applications", .purpose = "results that open in applications that are there",
     .switchedBy = setting::locationDisabled, .value = appSignature},
    {.name = "X-Kelvar-FuzzedLatLong", .where = Where::header, .personal = true, .source = "location",
     .purpose = "hints for the part of the world", .switchedBy = setting::locationDisabled, .value = fuzzedLocation},
    {.name = "X-Kelvar-GeoMetadata", .where = Where::header, .source = "user defaults",
     .purpose = "what the maps service knows of the daemon", .switchedBy = setting::mapsClientMetadata,
     .value = mapsMetadata},
    {.name = "X-Kelvar-GeoEnvironment", .where = Where::header, .source = "user defaults",
     .purpose = "which maps service answers", .switchedBy = setting::mapsEnvironment, .value = mapsEnvironment},
    {.name = "X-Kelvar-GeoSession", .where = Where::header, .source = "made at random, rolls with the user's",
     .purpose = "joins requests with those to the maps service", .value = mapsSession},
    {.name = "If-None-Match", .where = Where::header, .source = "the file that is there",
     .purpose = "spares a download of what has not changed",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.version); }},
    {.name = "X-Kelvar-Digest", .where = Where::header, .source = "the upload", .purpose = "tells a damaged upload",
     .value = [](const RequestInputs& in) { return Value(in.digest); }},
    {.name = "Accept", .where = Where::header, .precedence = Precedence::forced, .source = "built in",
     .purpose = "the format that flights come in",
     .value = [](const RequestInputs&) { return Value("application/x-protobuf"); }},
};

// clang-format on

consteval std::uint8_t positionOf(std::string_view name) {
    for (std::size_t position = 0; position < std::size(table); ++position)
        if (table[position].name == name) return static_cast<std::uint8_t>(position);
    throw "no entry of that name";
}

template <class... Names>
consteval std::array<std::uint8_t, sizeof...(Names)> order(Names... names) {
    return {positionOf(names)...};
}

constexpr auto bagFetchOrder =
    order("version", "key", "<debug items>", "locale", "esl", "X-Kelvar-Languages", "cc", "User-Agent", "cindora");
constexpr auto bagCacheOrder = order("version", "<debug items>", "locale", "esl", "cc", "agent", "cindora");
constexpr auto searchOrder =
    order("q", "qtype", "suggest_queries", "<query items>", "<debug items>", "key", "card", "X-Kelvar-TopTopics",
          "alwaysSendTophit", "cc", "locale", "esl", "X-Kelvar-Languages", "kb_ime", "calendar", "time_zone", "units",
          "temp", "24h", "l2", "l3", "lc", "lco", "lcs", "dicts", "sil", "X-Kelvar-GeoMetadata", "latlng", "geosrc",
          "rm", "tm", "X-Kelvar-Whitelisted-App-Signature", "mode", "storefront", "X-Kelvar-Subscriptions",
          "X-Kelvar-UserGuid", "User-Agent", "X-Kelvar-UI-Scale", "X-Kelvar-GeoEnvironment", "X-Kelvar-GeoSession");
constexpr auto zeroKeywordOrder =
    order("qtype", "<query items>", "<debug items>", "key", "locale", "esl", "X-Kelvar-Languages", "kb_ime", "calendar",
          "time_zone", "temp", "units", "24h", "sil", "cc", "X-Kelvar-GeoMetadata", "latlng", "geosrc", "rm", "tm",
          "storefront", "X-Kelvar-Subscriptions", "mode", "X-Kelvar-UserGuid", "User-Agent", "X-Kelvar-UI-Scale",
          "X-Kelvar-GeoEnvironment", "X-Kelvar-GeoSession");
constexpr auto moreResultsOrder =
    order("<query items>", "<debug items>", "key", "locale", "esl", "X-Kelvar-Languages", "latlng", "geosrc", "rm",
          "tm", "X-Kelvar-Whitelisted-App-Signature", "storefront", "X-Kelvar-Subscriptions", "mode",
          "X-Kelvar-UserGuid", "User-Agent", "X-Kelvar-UI-Scale");
constexpr auto lookupOrder =
    order("q", "<query items>", "<debug items>", "key", "locale", "esl", "X-Kelvar-Languages", "kb_ime", "cc",
          "X-Kelvar-GeoMetadata", "latlng", "geosrc", "storefront", "X-Kelvar-Subscriptions", "rm", "tm", "context",
          "ldomain", "ltype", "qlang", "lctxlang", "mode", "User-Agent", "X-Kelvar-UI-Scale",
          "X-Kelvar-Whitelisted-App-Signature", "X-Kelvar-GeoSession");
constexpr auto flightOrder =
    order("q", "timestamp", "<query items>", "<debug items>", "key", "locale", "esl", "X-Kelvar-Languages", "kb_ime",
          "cc", "X-Kelvar-GeoMetadata", "latlng", "geosrc", "rm", "tm", "X-Kelvar-UserGuid", "User-Agent",
          "X-Kelvar-UI-Scale", "X-Kelvar-Whitelisted-App-Signature", "X-Kelvar-GeoSession", "context", "Accept");
constexpr auto cardOrder =
    order("<query items>", "<debug items>", "key", "locale", "esl", "X-Kelvar-Languages", "cc", "latlng", "geosrc",
          "storefront", "rm", "tm", "X-Kelvar-GeoMetadata", "User-Agent", "X-Kelvar-UI-Scale",
          "X-Kelvar-Whitelisted-App-Signature", "X-Kelvar-GeoSession", "X-Kelvar-Subscriptions");
constexpr auto fileDownloadOrder = order("key", "User-Agent", "X-Kelvar-FuzzedLatLong", "If-None-Match");
constexpr auto feedbackUploadOrder =
    order("<debug items>", "key", "cc", "locale", "du_enabled", "X-Kelvar-Languages", "User-Agent", "X-Kelvar-Digest");

void add(const VocabularyEntry& entry, const RequestInputs& inputs, OrvexURLRequestBuilder& builder) {
    if (entry.add) return entry.add(inputs, builder);
    auto value = entry.value(inputs);
    if (!value) return;
    const bool forced = entry.precedence == Precedence::forced;
    if (entry.where == Where::header) {
        forced ? builder.forceHttpHeaderWithName(entry.name, std::move(*value))
               : builder.defaultHttpHeaderWithName(entry.name, std::move(*value));
    } else {
        forced ? builder.forceQueryItemWithName(entry.name, std::move(*value))
               : builder.defaultQueryItemWithName(entry.name, std::move(*value));
    }
}

}  // namespace

std::span<const VocabularyEntry> requestVocabulary() { return table; }

std::span<const std::uint8_t> constructionOrder(RequestKind kind) {
    switch (kind) {
        case RequestKind::bagFetch:
            return bagFetchOrder;
        case RequestKind::bagCache:
            return bagCacheOrder;
        case RequestKind::warm:
            return {};
        case RequestKind::search:
            return searchOrder;
        case RequestKind::zeroKeyword:
            return zeroKeywordOrder;
        case RequestKind::moreResults:
            return moreResultsOrder;
        case RequestKind::lookup:
            return lookupOrder;
        case RequestKind::flight:
            return flightOrder;
        case RequestKind::card:
            return cardOrder;
        case RequestKind::fileDownload:
            return fileDownloadOrder;
        case RequestKind::feedbackUpload:
            return feedbackUploadOrder;
    }
    return {};
}

void addVocabulary(RequestInputs inputs, OrvexURLRequestBuilder& builder) {
    if (inputs.request) inputs.location = locationTold(inputs);
    if (inputs.search) inputs.suggestions = suggestionsTold(*inputs.search);
    for (const auto position : constructionOrder(inputs.kind)) add(table[position], inputs, builder);
}

}  // namespace orvex
