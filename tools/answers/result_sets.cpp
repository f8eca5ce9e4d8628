#include "tools/answers/result_sets.h"

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <iterator>
#include <utility>

#include "core/json.h"
#include "platform/text.h"

namespace orvex {
namespace {

namespace json = boost::json;

std::string textOf(const json::object& object, std::string_view name) {
    return stringMember(object, name).value_or("");
}

AnswerSet::Card cardFrom(const json::object& card) {
    return {.identifier = textOf(card, "identifier"),
            .title = textOf(card, "title"),
            .subtitle = textOf(card, "subtitle"),
            .text = textOf(card, "text"),
            .url = textOf(card, "url")};
}

std::vector<AnswerSet::Card> cardsIn(const json::object& resultSet) {
    if (resultSet.contains("title")) return {cardFrom(resultSet)};
    std::vector<AnswerSet::Card> cards;
    const auto* results = resultSet.if_contains("results");
    if (results == nullptr || !results->is_array()) return cards;
    for (const auto& element : results->get_array()) {
        if (const auto* card = element.if_object()) cards.push_back(cardFrom(*card));
    }
    return cards;
}

}  // namespace

std::vector<AnswerSet> answerSetsIn(const json::array& body) {
    std::vector<AnswerSet> sets;
    for (const auto& element : body) {
        const auto* set = element.if_object();
        if (set == nullptr) continue;
        sets.push_back(
            {.query = textOf(*set, "query"), .suggestion = textOf(*set, "suggestion"), .cards = cardsIn(*set)});
    }
    return sets;
}

void bringForward(std::string_view typed, std::vector<AnswerSet>& sets) {
    const std::string prefix = platform::lowercased(typed);
    std::vector<AnswerSet> first, others;
    for (auto& set : sets) {
        const bool goesOn = platform::lowercased(set.suggestion).starts_with(prefix);
        (goesOn ? first : others).push_back(std::move(set));
    }
    std::ranges::move(others, std::back_inserter(first));
    sets = std::move(first);
}

}  // namespace orvex
