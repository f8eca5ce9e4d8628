#include "tools/tool/pages.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <cctype>
#include <cmath>

#include "core/json.h"
#include "platform/text.h"
#include "tools/answers/result_sets.h"

namespace orvex::tool {
namespace {

namespace json = boost::json;

constexpr std::size_t maxTextBytes = 400;  ///< of one text from the server

/// What a terminal may be shown of a foreign text.
std::string shown(std::string_view text) { return platform::escaped(text, maxTextBytes); }

std::string shownMember(const json::object& object, std::string_view name) {
    return shown(stringMember(object, name).value_or(""));
}

std::string shownValue(const json::value& value) {
    if (value.is_string()) return shown(value.get_string());
    if (const auto number = decimalFromJSON(value)) return *number;
    return shown(json::serialize(value));
}

const json::array* listMember(const json::object& object, std::string_view name) {
    const auto* member = object.if_contains(name);
    return member != nullptr ? member->if_array() : nullptr;
}

void indent(std::string& text, const json::value& value, std::size_t depth) {
    const std::string margin(2 * depth + 2, ' ');
    const auto* object = value.if_object();
    if (object == nullptr || object->empty()) {
        text += json::serialize(value);
        return;
    }
    text += "{\n";
    bool first = true;
    for (const auto& [key, member] : *object) {
        text += fmt::format("{}{}{}: ", first ? "" : ",\n", margin, json::serialize(json::string(key)));
        indent(text, member, depth + 1);
        first = false;
    }
    text += "\n" + std::string(2 * depth, ' ') + "}";
}

std::string age(double seconds) {
    const auto whole = static_cast<std::int64_t>(std::clamp(std::abs(seconds), 0.0, 1e12));
    if (whole < 120) return fmt::format("{} s", whole);
    if (whole < 7200) return fmt::format("{} min", whole / 60);
    return fmt::format("{} h {} min", whole / 3600, whole / 60 % 60);
}

double number(const json::object& status, std::string_view name) {
    const auto* value = status.if_contains(name);
    return value != nullptr ? numberFromJSON(*value).value_or(0) : 0;
}

std::string bagLine(const json::object& status) {
    const std::string version = shownMember(status, "bag_version");
    const double expires = number(status, "bag_expires");
    if (version.empty() && expires == 0) return "none yet";
    const double left =
        expires - std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    return fmt::format("version {}, {} {}", version.empty() ? "unknown" : version,
                       left < 0 ? "expired since" : "good for", age(left));
}

}  // namespace

ResultSets resultSets(const json::object& reply, std::string_view typed) {
    ResultSets results;
    const auto* data = listMember(reply, "data");
    if (data == nullptr) return results;
    auto sets = answerSetsIn(*data);
    bringForward(typed, sets);
    for (const auto& set : sets) {
        if (!set.suggestion.empty()) results.suggestions.push_back(shown(set.suggestion));
        for (const auto& card : set.cards) {
            results.cards.push_back({.title = shown(card.title),
                                     .subtitle = shown(card.subtitle),
                                     .text = shown(card.text),
                                     .url = shown(card.url)});
        }
    }
    return results;
}

std::string replyPage(const json::object& reply, double milliseconds) {
    std::string page;
    const ResultSets sets = resultSets(reply, "");
    for (const auto& suggestion : sets.suggestions) page += "  " + suggestion + "\n";
    for (const auto& card : sets.cards) {
        page += fmt::format("\n  {}{}\n    {}\n    {}\n", card.title,
                            card.subtitle.empty() ? "" : " (" + card.subtitle + ")", card.text, card.url);
    }
    const auto* data = reply.if_contains("data");
    if (data != nullptr && !data->is_array()) page += "  " + shownValue(*data) + "\n";
    if (page.empty()) page = "  nothing found\n";
    return page + fmt::format("\n  {:.1f} ms\n", milliseconds);
}

std::string bagPage(const std::string& text, bool compact) {
    if (text.empty()) return compact ? "null" : "no bag yet";
    const auto bag = parseJSON(text, kBagJSONDepth);
    if (compact || !bag) return text;
    std::string page;
    indent(page, *bag, 0);
    return page;
}

std::string errorText(const json::object& error) {
    const std::string reason = shownMember(error, "reason");
    const auto* code = error.if_contains("code");
    return fmt::format("{} ({} {})", reason.empty() ? "failed" : reason, shownMember(error, "domain"),
                       code != nullptr ? shownValue(*code) : "");
}

std::string sessionsPage(const json::value& sessions) {
    std::string page;
    for (const auto& element : sessions.as_array()) {
        const auto& session = element.as_object();
        page += fmt::format("{}\n  {}\n", shownMember(session, "identifier"), shownMember(session, "agent"));
    }
    return page.empty() ? "no client yet\n" : page;
}

std::string prometheusPage(const json::value& counters) {
    constexpr std::string_view prefix = "com.kelvar.orvexd.";
    std::string page;
    for (const auto& [key, value] : counters.as_object()) {
        std::string name(key);
        if (name.starts_with(prefix)) name.erase(0, prefix.size());
        for (char& c : name) {
            if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
        }
        page += fmt::format("# TYPE orvexd_{0}_total counter\norvexd_{0}_total {1}\n", name, value.as_int64());
    }
    return page;
}

std::string mapPage(const json::value& map) {
    const auto& object = map.as_object();
    std::size_t width = 0;
    for (const auto& [key, value] : object) width = std::max(width, shown(key).size());
    std::string page;
    for (const auto& [key, value] : object) page += fmt::format("{:<{}}  {}\n", shown(key), width, shownValue(value));
    return page.empty() ? "nothing\n" : page;
}

std::string statusPage(const json::value& value) {
    const auto& status = value.as_object();
    std::string transactions;
    if (const auto* names = listMember(status, "transactions")) {
        for (const auto& name : *names) transactions += (transactions.empty() ? "" : ", ") + shownValue(name);
    }
    return fmt::format("orvexd {}, up {}\n\n", shownMember(status, "version"), age(number(status, "uptime_seconds"))) +
           fmt::format("bag            {}\n", bagLine(status)) +
           fmt::format("connections    {}\n", number(status, "connections")) +
           fmt::format("kept alive by  {}\n", transactions.empty() ? "nothing" : transactions) +
           fmt::format("sessions       state {}, {} waiting\n", number(status, "session_state"),
                       number(status, "sessions_waiting")) +
           fmt::format("transfers      {} uploads, {} downloads\n", number(status, "uploads_pending"),
                       number(status, "downloads_pending")) +
           fmt::format("query cache    {} entries, cost {}\n", number(status, "query_cache_entries"),
                       number(status, "query_cache_cost"));
}

std::string transfersPage(const json::value& transfers) {
    const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    std::string page;
    for (const auto& element : transfers.as_array()) {
        const auto& transfer = element.as_object();
        const double next = number(transfer, "next_attempt");
        page += fmt::format("{}  {}  {}\n", shownMember(transfer, "identifier"), shownMember(transfer, "direction"),
                            shownMember(transfer, "url"));
        page += fmt::format("  {} bytes, {} old, {} attempts, next {}: {}\n", number(transfer, "bytes"),
                            age(now - number(transfer, "created")), number(transfer, "attempts"),
                            next == 0 ? std::string("at no set time") : "in " + age(std::max(next - now, 0.0)),
                            shownMember(transfer, "why"));
    }
    return page.empty() ? "nothing is pending\n" : page;
}

std::string explainedPage(const json::value& rows) {
    std::string page;
    for (const auto& element : rows.as_array()) {
        const auto& row = element.as_object();
        const auto* personal = row.if_contains("personal");
        const std::string purpose = shownMember(row, "purpose"), switchedBy = shownMember(row, "switch");
        page += fmt::format("{:<6} {} = {}\n", shownMember(row, "where"), shownMember(row, "name"),
                            shownMember(row, "value"));
        page += fmt::format("       from {}{}{}{}\n", shownMember(row, "source"), purpose.empty() ? "" : ": " + purpose,
                            personal && *personal == true ? "; about you" : "",
                            switchedBy.empty() ? "" : "; setting " + switchedBy);
    }
    return page.empty() ? "nothing is sent\n" : page;
}

}  // namespace orvex::tool
