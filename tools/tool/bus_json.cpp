#include "tools/tool/bus_json.h"

#include <fmt/format.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <charconv>
#include <map>

#include "core/json.h"
#include "platform/property_value.h"
#include "platform/text.h"

namespace orvex::tool {
namespace {

using platform::BusArray;
using platform::BusBytes;
using platform::BusDictionary;
using platform::BusStruct;
using platform::BusValue;
namespace json = boost::json;

json::value jsonFromBytes(std::string_view bytes) {
    if (auto parsed = parseJSON(bytes, kReplyJSONDepth)) return *std::move(parsed);
    if (platform::isValidUTF8(bytes)) return json::string(bytes);
    return platform::jsonFromPropertyValue(platform::PropertyData{std::string(bytes)});
}

struct ToJSON {
    json::value operator()(const std::string& text) const { return json::string(text); }
    json::value operator()(const platform::BusObjectPath& path) const { return json::string(path.path); }
    json::value operator()(const platform::BusSignature& signature) const { return json::string(signature.signature); }
    json::value operator()(const BusBytes& bytes) const { return jsonFromBytes(bytes.view()); }
    json::value operator()(const platform::BusFile&) const { return nullptr; }
    json::value operator()(const BusArray& array) const {
        json::array list;
        for (const auto& item : array.items) list.push_back(jsonFromBus(item));
        return list;
    }
    json::value operator()(const BusStruct& structure) const {
        json::array list;
        for (const auto& member : structure.members) list.push_back(jsonFromBus(member));
        return list;
    }
    json::value operator()(const BusDictionary& dictionary) const {
        json::object object;
        for (const auto& [key, value] : dictionary.entries) object[key] = jsonFromBus(value);
        return object;
    }
    template <class Number>
    json::value operator()(Number number) const {
        return number;
    }
};

enum class EntryType { text, unsigned32, unsigned64, number, boolean, items, suggestion, suggestions };

const std::map<std::string_view, EntryType>& entryTypes() {
    static const std::map<std::string_view, EntryType> types = {
        {"query_id", EntryType::unsigned64},
        {"scale", EntryType::number},
        {"verbose_reply", EntryType::boolean},
        {"trigger_event", EntryType::unsigned32},
        {"keyboard_input_mode", EntryType::text},
        {"query_items", EntryType::items},
        {"query_string", EntryType::text},
        {"temperature_unit", EntryType::text},
        {"l2_version", EntryType::text},
        {"l3_version", EntryType::text},
        {"top_topics", EntryType::text},
        {"engaged_suggestion", EntryType::suggestion},
        {"completion_cache_suggestions", EntryType::suggestions},
        {"card_url", EntryType::text},
        {"query_context", EntryType::text},
        {"lookup_hint_domain", EntryType::text},
        {"lookup_selection_type", EntryType::unsigned32},
        {"client_context", EntryType::text},
        {"flight_query", EntryType::text},
        {"flight_date", EntryType::number},
        {"suggestion", EntryType::text},
        {"query", EntryType::text},
        {"score", EntryType::number},
        {"type", EntryType::unsigned32},
        {"topic_identifier", EntryType::text},
        {"fbr", EntryType::text},
    };
    return types;
}

template <class Number>
platform::Result<BusValue> parseNumber(std::string_view name, const std::string& text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        return platform::failure(0, fmt::format("{}: '{}' is not a number that fits", name, text));
    }
    return BusValue(number);
}

platform::Result<BusValue> suggestionFromJSON(std::string_view name, const json::value& value) {
    if (!value.is_object()) return platform::failure(0, fmt::format("{}: expected a JSON object", name));
    BusDictionary dictionary;
    for (const auto& [key, member] : value.get_object()) {
        const auto text = member.is_string() ? std::string(member.get_string()) : decimalFromJSON(member);
        if (!text)
            return platform::failure(0,
                                     fmt::format("{}: {}: expected a text or a number", name, std::string_view(key)));
        auto entry = requestEntry(key, *text);
        if (!entry) return entry;
        dictionary.set(std::string(key), *std::move(entry));
    }
    return BusValue(std::move(dictionary));
}

platform::Result<BusValue> itemsFromJSON(std::string_view name, const json::array& list) {
    BusArray items{.elementSignature = "(ss)", .items = {}};
    for (const auto& item : list) {
        const auto* pair = item.if_array();
        if (pair == nullptr || pair->size() != 2 || !pair->at(0).is_string() || !pair->at(1).is_string()) {
            return platform::failure(0, fmt::format("{}: expected [[\"name\", \"value\"], …]", name));
        }
        items.items.emplace_back(BusStruct{
            {BusValue(std::string(pair->at(0).get_string())), BusValue(std::string(pair->at(1).get_string()))}});
    }
    return BusValue(std::move(items));
}

platform::Result<BusValue> structuredEntry(std::string_view name, EntryType type, const std::string& text) {
    const auto value = parseJSON(text, kBagJSONDepth);
    if (!value) return platform::failure(0, fmt::format("{}: {}", name, value.error().text));
    if (type == EntryType::suggestion) return suggestionFromJSON(name, *value);
    if (!value->is_array()) return platform::failure(0, fmt::format("{}: expected a JSON list", name));
    if (type == EntryType::items) return itemsFromJSON(name, value->get_array());
    BusArray suggestions{.elementSignature = "a{sv}", .items = {}};
    for (const auto& element : value->get_array()) {
        auto suggestion = suggestionFromJSON(name, element);
        if (!suggestion) return suggestion;
        suggestions.items.push_back(*std::move(suggestion));
    }
    return BusValue(std::move(suggestions));
}

}  // namespace

json::value jsonFromBus(const BusValue& value) { return std::visit(ToJSON{}, value.storage()); }

platform::Result<BusValue> requestEntry(std::string_view name, const std::string& text) {
    const auto found = entryTypes().find(name);
    if (found == entryTypes().end()) return platform::failure(0, fmt::format("{}: no such request entry", name));
    switch (found->second) {
        case EntryType::text:
            return BusValue(text);
        case EntryType::unsigned32:
            return parseNumber<std::uint32_t>(name, text);
        case EntryType::unsigned64:
            return parseNumber<std::uint64_t>(name, text);
        case EntryType::number:
            return parseNumber<double>(name, text);
        case EntryType::boolean:
            if (text == "true" || text == "false") return BusValue(text == "true");
            return platform::failure(0, fmt::format("{}: expected true or false", name));
        default:
            return structuredEntry(name, found->second, text);
    }
}

}  // namespace orvex::tool
