#include "daemon/bus_dictionaries.h"

#include <fmt/format.h>

#include <cmath>
#include <map>

#include "platform/text.h"
#include "platform/url.h"

namespace orvex {
namespace {

using platform::BusArray;
using platform::BusDictionary;
using platform::BusStruct;
using platform::BusValue;

/// Reads the entries of one dictionary into members; the first bad entry is kept and ends the reading.
class EntryReader {
public:
    EntryReader(const BusDictionary& dictionary, std::string where)
        : _dictionary(dictionary),
          _where(std::move(where)) {}

    template <class T>
    EntryReader& read(std::string_view key, T& member) {
        if (_bad) return *this;
        if (const BusValue* value = _dictionary.find(key)) _read(key, *value, member);
        return *this;
    }

    void refuse(std::string_view key, std::string_view why) {
        if (!_bad) _bad = BadEntry{fmt::format("{}{}: {}", _where, key, why)};
    }

    [[nodiscard]] const std::optional<BadEntry>& bad() const { return _bad; }

private:
    template <class T>
    void _plain(std::string_view key, const BusValue& value, T& member, std::string_view typeName) {
        if (const T* given = value.as<T>()) {
            member = *given;
        } else {
            refuse(key, fmt::format("expected {}, got {}", typeName, value.signature()));
        }
    }
    void _read(std::string_view key, const BusValue& value, bool& member) { _plain(key, value, member, "b"); }
    void _read(std::string_view key, const BusValue& value, std::uint32_t& member) { _plain(key, value, member, "u"); }
    void _read(std::string_view key, const BusValue& value, std::uint64_t& member) { _plain(key, value, member, "t"); }
    void _read(std::string_view key, const BusValue& value, double& member) {
        _plain(key, value, member, "d");
        if (!std::isfinite(member)) refuse(key, "not a finite number");
    }
    void _read(std::string_view key, const BusValue& value, std::string& member) {
        _plain(key, value, member, "s");
        if (!platform::isValidUTF8(member)) refuse(key, "not UTF-8");
    }
    void _read(std::string_view key, const BusValue& value, std::optional<double>& member) {
        double number = 0;
        _read(key, value, number);
        member = number;
    }
    void _read(std::string_view key, const BusValue& value, std::vector<platform::QueryItem>& member);
    void _read(std::string_view key, const BusValue& value, ORXSuggestion& member);
    void _read(std::string_view key, const BusValue& value, std::optional<ORXSuggestion>& member) {
        _read(key, value, member.emplace());
    }
    void _read(std::string_view key, const BusValue& value, std::vector<ORXSuggestion>& member);

    const BusDictionary& _dictionary;
    const std::string _where;
    std::optional<BadEntry> _bad;
};

void EntryReader::_read(std::string_view key, const BusValue& value, std::vector<platform::QueryItem>& member) {
    const auto* array = value.as<BusArray>();
    if (array == nullptr || array->elementSignature != "(ss)") {
        return refuse(key, fmt::format("expected a(ss), got {}", value.signature()));
    }
    member.reserve(array->items.size());
    for (const auto& element : array->items) {
        const auto& members = element.as<BusStruct>()->members;
        auto& [name, text] = member.emplace_back();
        _read(key, members[0], name);
        _read(key, members[1], text);
    }
}

void EntryReader::_read(std::string_view key, const BusValue& value, ORXSuggestion& member) {
    const auto* dictionary = value.as<BusDictionary>();
    if (dictionary == nullptr || dictionary->valueSignature != "v") {
        return refuse(key, fmt::format("expected a{{sv}}, got {}", value.signature()));
    }
    EntryReader reader(*dictionary, fmt::format("{}{}: ", _where, key));
    reader.read("suggestion", member.suggestion)
        .read("query", member.query)
        .read("score", member.score)
        .read("type", member.type)
        .read("topic_identifier", member.topicIdentifier)
        .read("fbr", member.fbr);
    if (!_bad) _bad = reader.bad();
}

void EntryReader::_read(std::string_view key, const BusValue& value, std::vector<ORXSuggestion>& member) {
    const auto* array = value.as<BusArray>();
    if (array == nullptr || array->elementSignature != "a{sv}") {
        return refuse(key, fmt::format("expected aa{{sv}}, got {}", value.signature()));
    }
    for (const auto& element : array->items) _read(key, element, member.emplace_back());
}

EntryReader readCommon(const BusDictionary& dictionary, ORXRequest& request) {
    EntryReader reader(dictionary, "");
    reader.read("query_id", request.queryId)
        .read("scale", request.scale)
        .read("verbose_reply", request.verboseReply)
        .read("trigger_event", request.triggerEvent)
        .read("keyboard_input_mode", request.keyboardInputMode)
        .read("query_items", request.queryItems);
    return reader;
}

std::expected<ORXAnyRequest, BadEntry> finish(const EntryReader& reader, ORXAnyRequest request) {
    if (reader.bad()) return std::unexpected(*reader.bad());
    return request;
}

std::expected<ORXAnyRequest, BadEntry> searchFromBus(const BusDictionary& dictionary) {
    ORXSearchRequest request;
    auto reader = readCommon(dictionary, request);
    reader.read("query_string", request.queryString)
        .read("temperature_unit", request.temperatureUnit)
        .read("l2_version", request.l2Version)
        .read("l3_version", request.l3Version)
        .read("top_topics", request.topTopics)
        .read("engaged_suggestion", request.engagedSuggestion)
        .read("completion_cache_suggestions", request.completionCacheSuggestions);
    return finish(reader, std::move(request));
}

std::expected<ORXAnyRequest, BadEntry> cardFromBus(const BusDictionary& dictionary) {
    ORXCardRequest request;
    auto reader = readCommon(dictionary, request);
    reader.read("card_url", request.cardURL);
    if (!request.cardURL.empty()) {
        if (const auto url = platform::parseAcceptableURL(request.cardURL); !url)
            reader.refuse("card_url", url.error().text);
    }
    return finish(reader, std::move(request));
}

std::expected<ORXAnyRequest, BadEntry> lookupFromBus(const BusDictionary& dictionary) {
    ORXLookupRequest request;
    auto reader = readCommon(dictionary, request);
    reader.read("query_string", request.queryString)
        .read("query_context", request.queryContext)
        .read("lookup_hint_domain", request.lookupHintDomain)
        .read("lookup_selection_type", request.lookupSelectionType)
        .read("client_context", request.clientContext);
    return finish(reader, std::move(request));
}

std::expected<ORXAnyRequest, BadEntry> flightFromBus(const BusDictionary& dictionary) {
    ORXFlightSearchRequest request;
    auto reader = readCommon(dictionary, request);
    reader.read("client_context", request.clientContext)
        .read("flight_query", request.flightQuery)
        .read("flight_date", request.flightDate);
    return finish(reader, std::move(request));
}

BusDictionary busSuggestion(const ORXSuggestion& suggestion) {
    BusDictionary dictionary;
    dictionary.set("suggestion", suggestion.suggestion)
        .set("query", suggestion.query)
        .set("score", suggestion.score)
        .set("type", suggestion.type)
        .set("topic_identifier", suggestion.topicIdentifier)
        .set("fbr", suggestion.fbr);
    return dictionary;
}

/// The bus takes UTF-8 only, a server's header may hold any byte: then it is read as ISO 8859-1, as HTTP once had it.
std::string busText(const std::string& text) {
    if (platform::isValidUTF8(text)) return text;
    std::string utf8;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            utf8 += c;
        } else {
            utf8 += static_cast<char>(0xC0 | (byte >> 6));
            utf8 += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return utf8;
}

/// Fields of one name are joined with commas (RFC 9110, section 5.3): a dictionary has a key once.
BusDictionary busHeaders(const platform::HTTPHeaders& headers) {
    std::map<std::string, std::string> joined;
    for (const auto& [name, value] : headers) {
        auto& text = joined[busText(name)];
        text += (text.empty() ? "" : ", ") + busText(value);
    }
    BusDictionary dictionary{.valueSignature = "s", .entries = {}};
    for (auto& [name, value] : joined) dictionary.set(name, std::move(value));
    return dictionary;
}

}  // namespace

std::expected<ORXAnyRequest, BadEntry> requestFromBus(std::string_view kind, const BusDictionary& dictionary) {
    if (kind == "search") return searchFromBus(dictionary);
    if (kind == "card") return cardFromBus(dictionary);
    if (kind == "lookup") return lookupFromBus(dictionary);
    if (kind == "flight") return flightFromBus(dictionary);
    if (kind == "more_results") {
        ORXMoreResultsRequest request;
        const auto reader = readCommon(dictionary, request);
        return finish(reader, std::move(request));
    }
    if (kind == "zero_keyword") {
        ORXZeroKeywordRequest request;
        auto reader = readCommon(dictionary, request);
        reader.read("temperature_unit", request.temperatureUnit);
        return finish(reader, std::move(request));
    }
    return std::unexpected(BadEntry{fmt::format("kind: unknown kind '{}'", platform::escaped(kind, 64))});
}

std::expected<ORXSessionConfiguration, BadEntry> configurationFromBus(const BusDictionary& dictionary) {
    ORXSessionConfiguration configuration;
    EntryReader reader(dictionary, "");
    reader.read("identifier", configuration.identifier).read("user_agent", configuration.userAgent);
    if (reader.bad()) return std::unexpected(*reader.bad());
    return configuration;
}

BusDictionary busError(const std::optional<ORXError>& error) {
    BusDictionary dictionary;
    if (!error) return dictionary;
    dictionary.set("domain", error->domain).set("code", error->code);
    if (error->reason) dictionary.set("reason", *error->reason);
    return dictionary;
}

BusDictionary busReply(const std::optional<ORXReply>& reply) {
    BusDictionary dictionary;
    if (!reply) return dictionary;
    dictionary.set("scale", reply->scale).set("data", platform::BusBytes{reply->data});
    if (reply->httpRequest) {
        BusDictionary request;
        request.set("url", reply->httpRequest->url).set("headers", busHeaders(reply->httpRequest->headers));
        dictionary.set("http_request", std::move(request));
    }
    if (reply->httpResponse) {
        BusDictionary response;
        response.set("status_code", reply->httpResponse->statusCode)
            .set("headers", busHeaders(reply->httpResponse->headers));
        dictionary.set("http_response", std::move(response));
    }
    if (reply->geoSessionEntityString) dictionary.set("geo_session_entity", *reply->geoSessionEntityString);
    if (!reply->localSuggestions.empty()) {
        BusArray suggestions{.elementSignature = "a{sv}", .items = {}};
        for (const auto& suggestion : reply->localSuggestions)
            suggestions.items.emplace_back(busSuggestion(suggestion));
        dictionary.set("local_suggestions", std::move(suggestions));
    }
    return dictionary;
}

}  // namespace orvex
