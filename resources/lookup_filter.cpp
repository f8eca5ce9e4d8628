#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <ranges>
#include <set>
#include <utility>
#include <vector>

#include "core/json.h"
#include "core/orx_request.h"
#include "daemon/orvex_logging.h"
#include "platform/text_search.h"
#include "resources/lookup.h"

// Scores are summed and compared in single precision, as the server reckons with them: 0.1 + 0.2 is then just 0.3.

namespace orvex {
namespace {

namespace json = boost::json;

const platform::Logger& log() { return OrvexLogForCategory(OrvexLoggingCategory::lookUp); }

float floatMember(const json::object& object, std::string_view name) {
    const auto* member = object.if_contains(name);
    return member != nullptr ? static_cast<float>(numberFromJSON(*member).value_or(0)) : 0.0F;
}

class QueryContext {
public:
    QueryContext(std::string_view text, const std::string& locale) : _text(text), _locale(locale) {}

    [[nodiscard]] bool contains(std::string_view part) const {
        return platform::containsIgnoringCase(_text, part, _locale);
    }

    /// The Jaccard index of its words and the subject's.
    [[nodiscard]] float similarity(std::string_view subject) const {
        const auto ours = wordSet(_text);
        const auto theirs = wordSet(subject);
        if (ours.empty() || theirs.empty()) return 0.0F;
        const auto common = std::ranges::count_if(theirs, [&](const auto& word) { return ours.contains(word); });
        const auto all = ours.size() + theirs.size() - static_cast<std::size_t>(common);
        return static_cast<float>(common) / static_cast<float>(all);
    }

private:
    static std::set<std::string> wordSet(std::string_view text) {
        auto words = platform::lowercasedWords(text);
        return {std::make_move_iterator(words.begin()), std::make_move_iterator(words.end())};
    }

    const std::string_view _text;
    const std::string& _locale;
};

/// The weights of the keywords, each word once with its last weight, in the order of first appearance.
std::vector<std::pair<std::string_view, float>> keywordWeights(const json::object& instructions) {
    std::vector<std::pair<std::string_view, float>> weights;
    const auto* keywords = instructions.if_contains("keywords");
    if (keywords == nullptr || !keywords->is_array()) return weights;
    for (const auto& keyword : keywords->get_array()) {
        const auto* entry = keyword.if_object();
        const auto* word = entry != nullptr ? entry->if_contains("word") : nullptr;
        if (word == nullptr || !word->is_string()) continue;
        const std::string_view text = word->get_string();
        const auto known = std::ranges::find(weights, text, [](const auto& weight) { return weight.first; });
        const float weight = floatMember(*entry, "weight");
        if (known != weights.end()) {
            known->second = weight;
        } else {
            weights.emplace_back(text, weight);
        }
    }
    return weights;
}

bool passesKeywords(const json::object& instructions, const QueryContext& context) {
    float score = 0;
    for (const auto& [word, weight] : keywordWeights(instructions))
        if (context.contains(word)) score += weight;
    const float least = floatMember(instructions, "min_keywords_score");
    const bool completionExists = context.contains(stringMember(instructions, "completion").value_or(""));
    if (score >= least && completionExists) return true;
    log().debug("dropping lookup result. keyword score: {:f} min keyword score: {:f} completion exists: {:d}", score,
                least, completionExists);
    return false;
}

bool passesSubject(const json::object& instructions, const QueryContext& context) {
    const float least = floatMember(instructions, "min_subject_score");
    if (!(least > 0.0F)) return true;
    const float index = context.similarity(stringMember(instructions, "subject").value_or(""));
    if (index >= least) return true;
    log().debug("dropping lookup result. jaccard index: {:f} min subject score: {:f}", index, least);
    return false;
}

bool isKept(const json::value& result, const QueryContext& context) {
    const auto* entries = result.if_object();
    const auto* instructions = entries != nullptr ? entries->if_contains("lookup_instructions") : nullptr;
    if (instructions == nullptr || !instructions->is_object()) return true;
    return passesKeywords(instructions->get_object(), context) && passesSubject(instructions->get_object(), context);
}

void filterResults(json::value& element, const QueryContext& context) {
    auto* entries = element.if_object();
    auto* results = entries != nullptr ? entries->if_contains("results") : nullptr;
    if (results == nullptr || !results->is_array()) return;
    json::array kept(results->storage());
    for (auto& result : results->get_array())
        if (isKept(result, context)) kept.push_back(std::move(result));
    *results = std::move(kept);
}

}  // namespace

void Lookup::filterLookupResultsWithRequest(const ORXLookupRequest& request, json::value& response,
                                            const std::string& locale) {
    auto* elements = response.if_array();
    if (elements == nullptr) {
        log().error("lookup response is not an array. who knows what this is: {}",
                    platform::privately(json::serialize(response)));
        return;
    }
    if (elements->empty()) {
        log().error("no data to process for lookup response. request: {} response: {}",
                    platform::privately(request.queryContext), platform::privately(json::serialize(response)));
    }
    const QueryContext context(request.queryContext, locale);
    for (auto& element : *elements) filterResults(element, context);
}

}  // namespace orvex
