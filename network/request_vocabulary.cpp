#include "network/request_vocabulary.h"

#include <fmt/format.h>

#include <array>

#include "core/orx_bag.h"
#include "core/orx_request.h"
#include "network/orvex_url_request_builder.h"
#include "network/request_context.h"

// One table, and one list of its names for each kind of request. What a request carries is decided nowhere else: a new
// item is a row here and its name in the lists of the requests that carry it. A misspelt name does not compile.

namespace orvex {
namespace {

using Where = VocabularyEntry::Where;
using Precedence = VocabularyEntry::Precedence;
using Value = std::optional<std::string>;

constexpr std::string_view apiKey = "tabbycat5208";

Value unlessEmpty(std::string_view text) { return text.empty() ? std::nullopt : Value(text); }

Value qtypeOfTriggerEvent(const RequestInputs& inputs) {
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

Value temperatureUnit(const RequestInputs& inputs) {
    const auto& preferred = inputs.search->temperatureUnit;
    return unlessEmpty(preferred.empty() ? inputs.context->tempUnits : preferred);
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
     .value = [](const RequestInputs& in) { return Value(in.search->queryString); }},
    {.name = "qtype", .precedence = Precedence::forced, .source = "what triggered the query",
     .purpose = "chooses suggestions, results or both", .value = qtypeOfTriggerEvent},
    {.name = "suggest_queries", .source = "what triggered the query",
     .purpose = "asks for suggestions with a top hit", .value = suggestQueries},
    {.name = "<query items>", .precedence = Precedence::forced, .personal = true, .source = "the client",
     .purpose = "what the client itself adds", .add = addClientItems},
    {.name = "<debug items>", .precedence = Precedence::forced, .source = "user defaults",
     .purpose = "whatever the developer who set them tests", .switchedBy = "ORXDebugParameters",
     .add = addDebugItems},
    {.name = "key", .source = "built in", .purpose = "tells that the daemon asks",
     .value = [](const RequestInputs&) { return Value(apiKey); }},
    {.name = "version", .source = "the bag", .purpose = "asks for this version of the bag",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.version); }},
    {.name = "agent", .source = "built in, and device information", .purpose = "tells bags of other agents apart",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.userAgent); }},
    {.name = "cindora", .source = "user defaults", .purpose = "whether a proxy configuration is of use",
     .switchedBy = "ORXUseCindora",
     .value = [](const RequestInputs& in) { return Value(in.useCindora ? "1" : "0"); }},
    {.name = "card", .source = "built in", .purpose = "asks for results as cards",
     .value = [](const RequestInputs&) { return Value("1"); }},
    {.name = "alwaysSendTophit", .source = "user defaults", .purpose = "whether to send a top hit in any case",
     .switchedBy = "ORXAlwaysOnTophit",
     .value = [](const RequestInputs& in) { return Value(in.context->alwaysSendTophit ? "on" : "off"); }},
    {.name = "cc", .source = "time zone or locale", .purpose = "results for the country",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.context->geoDeviceCountryCode); }},
    {.name = "locale", .source = "locale", .purpose = "results in the language and manner of the user",
     .value = [](const RequestInputs& in) { return Value(in.context->localeIdentifier); }},
    {.name = "esl", .source = "preferred languages", .purpose = "texts in the system's language",
     .value = [](const RequestInputs& in) { return unlessEmpty(in.context->effectiveSystemLanguage); }},
    {.name = "kb_ime", .source = "the query", .purpose = "how the query was typed",
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
};
// clang-format on

consteval std::uint8_t positionOf(std::string_view name) {
    for (std::uint8_t position = 0; position < std::size(table); ++position)
        if (table[position].name == name) return position;
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
    order("q", "qtype", "suggest_queries", "<query items>", "<debug items>", "key", "card", "alwaysSendTophit", "cc",
          "locale", "esl", "X-Kelvar-Languages", "kb_ime", "calendar", "time_zone", "units", "temp", "24h", "l2", "l3",
          "X-Kelvar-UserGuid", "User-Agent", "X-Kelvar-UI-Scale");

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
    }
    return {};
}

void addVocabulary(const RequestInputs& inputs, OrvexURLRequestBuilder& builder) {
    for (const auto position : constructionOrder(inputs.kind)) add(table[position], inputs, builder);
}

}  // namespace orvex
