#include "tools/service/bag_document.h"

#include <fmt/core.h>

#include <boost/json.hpp>

#include "tools/service/served_resources.h"

namespace orvex {

std::string bagDocument(std::string_view base, const ServedResources& resources) {
    namespace json = boost::json;
    const auto url = [base](std::string_view path) { return fmt::format("{}{}", base, path); };
    json::object bag = {
        {"version", "1"},
        {"enabled", true},
        {"warm_url", url("/warm")},
        {"search_url", url("/search")},
        {"more_results_url", url("/more")},
        {"card_url", url("/card")},
        {"flight_url", url("/flight")},
        {"feedback_url", url("/feedback")},
        {"crowdsourcing_url", url("/crowdsourcing")},
        {"feedback_enabled", true},
        {"lookup_enabled", true},
        {"supported_geo_location_sources", {"gps", "wifi", "cell"}},
        {"send_geo_environment_header", true},
        {"timeout_interval_for_request", 10},
        {"search_render_timeout", 3000},
        {"minimum_query_length", 1},
        {"smart_history_enabled", true},
        {"smart_history_feature_feedback_enabled", true},
        {"smart_history_minimum_query_length", 1},
        {"smart_history_completion_return_count", 3},
        {"smart_history_max_rows", 10000},
        {"smart_history_sample_threshold", 0},
        {"smart_history_timeout", 50},
        {"subscription_ttl", 86400},
        {"hashtag_images_enabled", true},
        {"cindora_configuration", {{"appRule", {{"enable", {{"Enabled", false}}}}}}},
    };
    json::array identifiers;
    json::object urls;
    for (const std::string& identifier : resources.identifiers()) {
        const std::string address = url(resources.path(identifier));
        identifiers.emplace_back(identifier);
        urls[identifier] = address;
        bag[identifier] = address;
    }
    bag["download_resources_list"] = std::move(identifiers);
    bag["resources"] = std::move(urls);
    return json::serialize(bag);
}

}  // namespace orvex
