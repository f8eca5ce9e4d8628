#pragma once

#include <boost/json/fwd.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace orvex {

struct ORXSuggestion;

/// What the user cares about, as weights by topic. Comes as a JSON object: "sil" the text to send as it is, "all" the
/// weights, "pv" the version of the model that made them. Immutable; copies share.
class SilhouetteTopics {
public:
    SilhouetteTopics() = default;

    /// A text that is no JSON object is itself what to send. An empty one: no topics.
    static SilhouetteTopics fromText(std::string_view text);

    /// What to send with a query; `engaged` is the suggestion that the user took just before, or null. Its blob may
    /// score topics: weights are then multiplied by those scores, and a topic without a weight has its score.
    [[nodiscard]] std::optional<std::string> itemValue(const ORXSuggestion* engaged) const;

    bool operator==(const SilhouetteTopics&) const = default;

private:
    [[nodiscard]] std::optional<std::string> _scoredBy(const ORXSuggestion& engaged) const;

    std::string _topics;
    std::shared_ptr<const boost::json::object> _allTopics;
};

}  // namespace orvex
