#include "tools/search_provider/results.h"

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <iterator>

#include "core/json.h"
#include "platform/log.h"
#include "platform/text.h"
#include "platform/url.h"
#include "tools/answers/result_sets.h"

namespace orvex::search_provider {
namespace {

namespace json = boost::json;

constexpr std::size_t maxNameBytes = 200;
constexpr std::size_t maxDescriptionBytes = 400;
constexpr std::size_t maxURLBytes = 2048;
constexpr std::size_t maxServerIdentifierBytes = 256;
constexpr std::size_t maxIdentifierBytes = 8192;  // all of the above, escaped as JSON does
constexpr std::size_t identifierDepth = 2;

/// A foreign text on one line.
std::string shown(std::string_view text, std::size_t maxBytes) {
    std::string line(text);
    std::ranges::replace_if(line, [](char c) { return c == '\n' || c == '\r' || c == '\t'; }, ' ');
    return platform::escaped(line, maxBytes - std::string_view("…").size());
}

std::string pageOf(const std::string& url) {
    return url.size() <= maxURLBytes && platform::parseAcceptableURL(url) ? url : std::string();
}

std::string descriptionOf(const AnswerSet::Card& card) {
    if (card.subtitle.empty() || card.text.empty()) return shown(card.subtitle + card.text, maxDescriptionBytes);
    return shown(card.subtitle + ": " + card.text, maxDescriptionBytes);
}

std::string feedbackName(const std::string& identifier, const std::string& otherwise) {
    const bool fit = !identifier.empty() && identifier.size() <= maxServerIdentifierBytes;
    return fit && !platform::hasControlCharacter(identifier) ? identifier : otherwise;
}

/// Those cards that have a name and a page.
std::vector<Result> cardsOf(const AnswerSet& set, std::uint64_t queryId) {
    std::vector<Result> results;
    for (const auto& card : set.cards) {
        Result result{.queryId = queryId,
                      .name = shown(card.title.empty() ? set.suggestion : card.title, maxNameBytes),
                      .description = descriptionOf(card),
                      .url = pageOf(card.url),
                      .identifier = {}};
        if (result.name.empty() || result.url.empty()) continue;
        result.identifier = feedbackName(card.identifier, result.name);
        results.push_back(std::move(result));
        if (results.size() == maxResults) break;
    }
    return results;
}

std::vector<Result> resultsOf(const AnswerSet& set, std::uint64_t queryId) {
    auto results = cardsOf(set, queryId);
    const auto suggestion = shown(set.suggestion, maxNameBytes);
    if (results.empty() && !suggestion.empty()) {
        results.push_back({.queryId = queryId,
                           .name = suggestion,
                           .description = {},
                           .url = {},
                           .identifier = feedbackName(set.query, suggestion)});
    }
    return results;
}

std::string textAt(const json::object& object, std::string_view name, std::size_t maxBytes) {
    auto text = stringMember(object, name).value_or("");
    return text.size() <= maxBytes && !platform::hasControlCharacter(text) ? text : std::string();
}

}  // namespace

std::string queryOf(const std::vector<std::string>& terms) {
    std::string query;
    for (const auto& term : terms) {
        if (term.empty()) continue;
        if (!query.empty()) query += ' ';
        query += term;
        if (query.size() > maxQueryBytes) return {};
    }
    return platform::hasControlCharacter(query) ? std::string() : query;
}

std::vector<Result> resultsIn(const Answer& answer) {
    if (answer.body.size() > maxAnswerBytes) {
        platform::defaultLogger().error("an answer of {} bytes is too long for an overview", answer.body.size());
        return {};
    }
    const auto body = parseJSON(answer.body, kReplyJSONDepth);
    if (!body || !body->is_array()) {
        platform::defaultLogger().error("an answer that is no list: {}", body ? "another kind" : body.error().text);
        return {};
    }
    auto sets = answerSetsIn(body->get_array());
    if (answer.fromMemory) bringForward(answer.typed, sets);
    std::vector<Result> first, others;
    for (const auto& set : sets) {
        auto results = resultsOf(set, answer.queryId);
        if (results.empty()) continue;
        first.push_back(std::move(results.front()));
        std::move(results.begin() + 1, results.end(), std::back_inserter(others));
    }
    std::vector<Result> distinct;
    std::ranges::move(others, std::back_inserter(first));
    for (auto& result : first) {
        if (distinct.size() == maxResults) break;
        if (std::ranges::find(distinct, result) == distinct.end()) distinct.push_back(std::move(result));
    }
    return distinct;
}

std::string identifierOf(const Result& result) {
    return json::serialize(json::object{{"query", result.queryId},
                                        {"name", result.name},
                                        {"description", result.description},
                                        {"url", result.url},
                                        {"identifier", result.identifier}});
}

std::optional<Result> resultOf(std::string_view identifier) {
    if (identifier.size() > maxIdentifierBytes) return std::nullopt;
    const auto read = parseJSON(identifier, identifierDepth);
    const auto* object = read ? read->if_object() : nullptr;
    const auto* query = object != nullptr ? object->if_contains("query") : nullptr;
    if (query == nullptr) return std::nullopt;
    boost::system::error_code noNumber;
    const auto queryId = query->to_number<std::uint64_t>(noNumber);
    if (noNumber) return std::nullopt;
    Result result{.queryId = queryId,
                  .name = textAt(*object, "name", maxNameBytes),
                  .description = textAt(*object, "description", maxDescriptionBytes),
                  .url = textAt(*object, "url", maxURLBytes),
                  .identifier = textAt(*object, "identifier", maxServerIdentifierBytes)};
    if (result.name.empty() || pageOf(result.url) != result.url) return std::nullopt;
    return result;
}

platform::BusDictionary metaOf(const Result& result) {
    platform::BusDictionary meta;
    meta.set("id", identifierOf(result)).set("name", result.name);
    if (!result.description.empty()) meta.set("description", result.description);
    // Names of the icon naming standard, so that every theme has them. They say what picking the result does.
    meta.set("gicon", result.url.empty() ? "edit-copy" : "applications-internet");
    if (result.url.empty()) meta.set("clipboardText", result.name);
    return meta;
}

}  // namespace orvex::search_provider
