#include "network/silhouette_topics.h"

#include <boost/json.hpp>

#include "core/json.h"
#include "core/orx_request.h"
#include "daemon/orvex_logging.h"
#include "platform/base64.h"
#include "platform/log.h"

namespace orvex {
namespace {

/// The scores by topic in a suggestion's blob; none where it has none.
std::optional<boost::json::object> topicScores(std::string_view fbr) {
    const auto text = fbr.empty() ? std::nullopt : platform::decodedBase64(fbr);
    const auto json = text ? parseJSON(*text, kReplyJSONDepth) : platform::failure(0, "no blob");
    const auto* object = json ? json->if_object() : nullptr;
    const auto* scores = object ? object->if_contains("si") : nullptr;
    return scores && scores->is_object() ? std::optional(scores->get_object()) : std::nullopt;
}

}  // namespace

SilhouetteTopics SilhouetteTopics::fromText(std::string_view text) {
    SilhouetteTopics topics;
    const auto json = text.empty() ? platform::failure(0, "empty") : parseJSON(text, kReplyJSONDepth);
    if (!json || !json->is_object()) {
        topics._topics = text;
        return topics;
    }
    const auto& object = json->get_object();
    topics._topics = stringMember(object, "sil").value_or("");
    if (const auto* all = object.if_contains("all"); all && all->is_object() && !all->get_object().empty())
        topics._allTopics = std::make_shared<const boost::json::object>(all->get_object());
    const auto* version = object.if_contains("pv");
    OrvexLogForCategory(OrvexLoggingCategory::request)
        .debug("silhouette topics of version {}", version ? compactJSON(*version) : "(null)");
    return topics;
}

std::optional<std::string> SilhouetteTopics::itemValue(const ORXSuggestion* engaged) const {
    if (_allTopics && engaged) {
        if (auto scored = _scoredBy(*engaged)) return scored;
    }
    return _topics.empty() ? std::nullopt : std::optional(_topics);
}

std::optional<std::string> SilhouetteTopics::_scoredBy(const ORXSuggestion& engaged) const {
    const auto scores = topicScores(engaged.fbr);
    if (!scores) return std::nullopt;
    boost::json::object weights = *_allTopics;
    for (const auto& [topic, value] : *scores) {
        const auto score = numberFromJSON(value);
        if (!score) continue;
        auto* weight = weights.if_contains(topic);
        const auto before = weight ? numberFromJSON(*weight) : std::nullopt;
        if (!weight) {
            weights.emplace(topic, *score);
        } else if (before) {
            *weight = *before * *score;
        }
    }
    return compactJSON(weights);
}

}  // namespace orvex
