#include "tools/tool/bus_json.h"

#include <fmt/format.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <charconv>
#include <map>
#include <variant>

#include "core/json.h"
#include "platform/property_value.h"
#include "platform/text.h"

namespace orvex::tool {
namespace {

using client::Date;
using client::Request;
using client::Suggestion;
using platform::failure;
using platform::Result;
namespace json = boost::json;

json::value jsonFromBytes(std::string_view bytes) {
    if (auto parsed = parseJSON(bytes, kReplyJSONDepth)) return *std::move(parsed);
    if (platform::isValidUTF8(bytes)) return json::string(bytes);
    return platform::jsonFromPropertyValue(platform::PropertyData{std::string(bytes)});
}

struct ToJSON {
    json::value operator()(std::monostate) const { return nullptr; }
    json::value operator()(const std::string& text) const { return json::string(text); }
    json::value operator()(const client::Bytes& bytes) const { return jsonFromBytes(bytes.bytes); }
    json::value operator()(const client::List& list) const {
        json::array array;
        for (const auto& item : list) array.push_back(jsonFromValue(item));
        return array;
    }
    json::value operator()(const client::Dictionary& dictionary) const {
        json::object object;
        for (const auto& [key, value] : dictionary.entries) object[key] = jsonFromValue(value);
        return object;
    }
    template <class Number>
    json::value operator()(Number number) const {
        return number;
    }
};

json::object jsonFromHeaders(const std::map<std::string, std::string>& headers) {
    json::object object;
    for (const auto& [name, value] : headers) object[name] = value;
    return object;
}

json::object jsonFromSuggestion(const Suggestion& suggestion) {
    return {{"suggestion", suggestion.suggestion},
            {"query", suggestion.query},
            {"score", suggestion.score},
            {"type", suggestion.type},
            {"topic_identifier", suggestion.topicIdentifier},
            {"fbr", suggestion.fbr}};
}

/// Where an entry goes, whose type says how its text is read.
template <class T>
using Entry = std::variant<std::string T::*, std::uint32_t T::*, std::uint64_t T::*, double T::*, bool T::*,
                           std::optional<Date> T::*>;

const std::map<std::string_view, Entry<Request>>& requestEntries() {
    static const std::map<std::string_view, Entry<Request>> entries = {
        {"query_id", &Request::queryId},
        {"scale", &Request::scale},
        {"verbose_reply", &Request::verboseReply},
        {"trigger_event", &Request::triggerEvent},
        {"keyboard_input_mode", &Request::keyboardInputMode},
        {"query_string", &Request::queryString},
        {"temperature_unit", &Request::temperatureUnit},
        {"l2_version", &Request::l2Version},
        {"l3_version", &Request::l3Version},
        {"top_topics", &Request::topTopics},
        {"card_url", &Request::cardURL},
        {"query_context", &Request::queryContext},
        {"lookup_hint_domain", &Request::lookupHintDomain},
        {"lookup_selection_type", &Request::lookupSelectionType},
        {"client_context", &Request::clientContext},
        {"flight_query", &Request::flightQuery},
        {"flight_date", &Request::flightDate},
    };
    return entries;
}

const std::map<std::string_view, Entry<Suggestion>>& suggestionEntries() {
    static const std::map<std::string_view, Entry<Suggestion>> entries = {
        {"suggestion", &Suggestion::suggestion},
        {"query", &Suggestion::query},
        {"score", &Suggestion::score},
        {"type", &Suggestion::type},
        {"topic_identifier", &Suggestion::topicIdentifier},
        {"fbr", &Suggestion::fbr},
    };
    return entries;
}

Result<void> read(std::string_view, const std::string& text, std::string& into) {
    into = text;
    return {};
}

Result<void> read(std::string_view name, const std::string& text, bool& into) {
    if (text != "true" && text != "false") return failure(0, fmt::format("{}: expected true or false", name));
    into = text == "true";
    return {};
}

template <class Number>
Result<void> read(std::string_view name, const std::string& text, Number& into) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), into);
    if (error == std::errc() && end == text.data() + text.size()) return {};
    return failure(0, fmt::format("{}: '{}' is not a number that fits", name, text));
}

Result<void> read(std::string_view name, const std::string& text, std::optional<Date>& into) {
    double seconds = 0;
    if (auto number = read(name, text, seconds); !number) return number;
    into = Date(seconds);
    return {};
}

template <class T>
Result<void> set(T& object, const std::map<std::string_view, Entry<T>>& entries, std::string_view name,
                 const std::string& text) {
    const auto found = entries.find(name);
    if (found == entries.end()) return failure(0, fmt::format("{}: no such request entry", name));
    return std::visit([&](auto member) { return read(name, text, object.*member); }, found->second);
}

Result<Suggestion> suggestionFromJSON(std::string_view name, const json::value& value) {
    if (!value.is_object()) return failure(0, fmt::format("{}: expected a JSON object", name));
    Suggestion suggestion;
    for (const auto& [key, member] : value.get_object()) {
        const auto text = member.is_string() ? std::string(member.get_string()) : decimalFromJSON(member);
        if (!text) return failure(0, fmt::format("{}: {}: expected a text or a number", name, std::string_view(key)));
        auto entry = set(suggestion, suggestionEntries(), key, *text);
        if (!entry) return std::unexpected(entry.error());
    }
    return suggestion;
}

Result<void> readItems(std::string_view name, const json::array& list, Request& request) {
    request.queryItems.clear();
    for (const auto& item : list) {
        const auto* pair = item.if_array();
        if (pair == nullptr || pair->size() != 2 || !pair->at(0).is_string() || !pair->at(1).is_string()) {
            return failure(0, fmt::format("{}: expected [[\"name\", \"value\"], …]", name));
        }
        request.queryItems.emplace_back(pair->at(0).get_string(), pair->at(1).get_string());
    }
    return {};
}

Result<void> readSuggestions(std::string_view name, const json::array& list, Request& request) {
    request.completionCacheSuggestions.clear();
    for (const auto& element : list) {
        auto suggestion = suggestionFromJSON(name, element);
        if (!suggestion) return std::unexpected(suggestion.error());
        request.completionCacheSuggestions.push_back(*std::move(suggestion));
    }
    return {};
}

Result<void> setStructuredEntry(Request& request, std::string_view name, const std::string& text) {
    const auto value = parseJSON(text, kBagJSONDepth);
    if (!value) return failure(0, fmt::format("{}: {}", name, value.error().text));
    if (name == "engaged_suggestion") {
        auto suggestion = suggestionFromJSON(name, *value);
        if (!suggestion) return std::unexpected(suggestion.error());
        request.engagedSuggestion = *std::move(suggestion);
        return {};
    }
    if (!value->is_array()) return failure(0, fmt::format("{}: expected a JSON list", name));
    const auto& list = value->get_array();
    return name == "query_items" ? readItems(name, list, request) : readSuggestions(name, list, request);
}

}  // namespace

json::value jsonFromValue(const client::Value& value) { return std::visit(ToJSON{}, value.content); }

json::object jsonFromReply(const client::Reply& reply) {
    if (reply.isNothing) return {};
    json::object object{{"scale", reply.scale}, {"data", jsonFromBytes(reply.data)}};
    if (reply.httpRequest) {
        object["http_request"] =
            json::object{{"url", reply.httpRequest->url}, {"headers", jsonFromHeaders(reply.httpRequest->headers)}};
    }
    if (reply.httpResponse) {
        object["http_response"] = json::object{{"status_code", reply.httpResponse->statusCode},
                                               {"headers", jsonFromHeaders(reply.httpResponse->headers)}};
    }
    if (reply.geoSessionEntity) object["geo_session_entity"] = *reply.geoSessionEntity;
    if (reply.localSuggestions.empty()) return object;
    auto& suggestions = object["local_suggestions"].emplace_array();
    for (const auto& suggestion : reply.localSuggestions) suggestions.push_back(jsonFromSuggestion(suggestion));
    return object;
}

json::object jsonFromError(const client::Error& error) {
    json::object object{{"domain", error.domain}, {"code", error.code}};
    if (!error.reason.empty()) object["reason"] = error.reason;
    return object;
}

Result<void> setRequestEntry(Request& request, std::string_view name, const std::string& text) {
    const bool isStructured =
        name == "query_items" || name == "engaged_suggestion" || name == "completion_cache_suggestions";
    return isStructured ? setStructuredEntry(request, name, text) : set(request, requestEntries(), name, text);
}

}  // namespace orvex::tool
