#include "tools/tool/pages.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

#include "core/json.h"
#include "tools/answers/result_sets.h"
#include "tools/tool/shown_text.h"

namespace orvex::tool {
namespace {

namespace json = boost::json;

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

std::string mapPage(const json::value& map) {
    const auto& object = map.as_object();
    std::size_t width = 0;
    for (const auto& [key, value] : object) width = std::max(width, shown(key).size());
    std::string page;
    for (const auto& [key, value] : object) page += fmt::format("{:<{}}  {}\n", shown(key), width, shownValue(value));
    return page.empty() ? "nothing\n" : page;
}

std::string transfersPage(const json::value& transfers) {
    const double now = secondsSince1970Now();
    std::string page;
    for (const auto& element : transfers.as_array()) {
        const auto& transfer = element.as_object();
        const double next = numberMember(transfer, "next_attempt");
        page += fmt::format("{}  {}  {}\n", shownMember(transfer, "identifier"), shownMember(transfer, "direction"),
                            shownMember(transfer, "url"));
        page += fmt::format("  {} bytes, {} old, {} attempts, next {}: {}\n", numberMember(transfer, "bytes"),
                            age(now - numberMember(transfer, "created")), numberMember(transfer, "attempts"),
                            next == 0 ? std::string("at no set time") : "in " + age(std::max(next - now, 0.0)),
                            shownMember(transfer, "why"));
    }
    return page.empty() ? "nothing is pending\n" : page;
}

std::string explainedPage(const json::value& rows) {
    std::string page;
    for (const auto& element : rows.as_array()) {
        const auto& row = element.as_object();
        const std::string purpose = shownMember(row, "purpose"), switchedBy = shownMember(row, "switch");
        page += fmt::format("{:<6} {} = {}\n", shownMember(row, "where"), shownMember(row, "name"),
                            shownMember(row, "value"));
        page += fmt::format("       from {}{}{}{}\n", shownMember(row, "source"), purpose.empty() ? "" : ": " + purpose,
                            isTrue(row, "personal") ? "; about you" : "",
                            switchedBy.empty() ? "" : "; setting " + switchedBy);
    }
    return page.empty() ? "nothing is sent\n" : page;
}

}  // namespace orvex::tool
