#include "core/orx_bag.h"

#include <fmt/format.h>

#include <boost/json.hpp>
#include <limits>

#include "core/json.h"
#include "platform/text.h"
#include "platform/url.h"

namespace orvex {

/// Takes values out of one dictionary. What a member holds before is its default, and stays where the value is not
/// fit.
class ORXBag::Reader {
public:
    Reader(const boost::json::object& dictionary, std::vector<std::string>& problems)
        : _dictionary(dictionary),
          _problems(problems) {}

    void read(std::string_view key, bool& member) {
        const auto* value = _find(key);
        if (!value) return;
        const auto* boolean = value->if_bool();
        if (!boolean) return _refuse(key, "is not a boolean");
        member = *boolean;
    }

    void readNumber(std::string_view key, double& member) {
        if (const auto number = _number(key)) member = *number;
    }

    void readAmount(std::string_view key, double& member) {
        if (const auto amount = _amount(key)) member = *amount;
    }

    void readAmount(std::string_view key, std::optional<double>& member) {
        if (const auto amount = _amount(key)) member = amount;
    }

    void readCount(std::string_view key, std::uint64_t& member) {
        const auto amount = _amount(key);
        if (!amount) return;
        constexpr double limit = 0x1p64;
        member = *amount < limit ? static_cast<std::uint64_t>(*amount) : std::numeric_limits<std::uint64_t>::max();
    }

    void readVersion(std::optional<std::string>& member) {
        const auto* value = _find("version");
        if (!value) return;
        if (const auto* text = value->if_string()) {
            member = std::string(*text);
        } else {
            member = decimalFromJSON(*value);
        }
        if (!member) _refuse("version", "is neither a string nor a number");
    }

    void readURL(std::string_view key, std::optional<std::string>& member) {
        const auto* value = _find(key);
        if (!value) return;
        const auto* text = value->if_string();
        if (!text) return _refuse(key, "is not a string");
        if (const auto url = platform::parseAcceptableURL(*text); !url) return _refuse(key, url.error().text);
        member = std::string(*text);
    }

    void read(std::string_view key, const boost::json::object*& member) {
        const auto* value = _find(key);
        if (!value) return;
        member = value->if_object();
        if (!member) _refuse(key, "is not an object");
    }

    void read(std::string_view key, std::optional<Texts>& member) {
        if (auto texts = _texts(key)) member = std::move(texts);
    }

    void read(std::string_view key, Texts& member) {
        if (auto texts = _texts(key)) member = std::move(*texts);
    }

private:
    const boost::json::value* _find(std::string_view key) const { return _dictionary.if_contains(key); }

    std::optional<Texts> _texts(std::string_view key) {
        const auto* value = _find(key);
        if (!value) return std::nullopt;
        const auto* array = value->if_array();
        Texts texts;
        for (std::size_t index = 0; array && index < array->size(); ++index) {
            const auto* text = (*array)[index].if_string();
            if (text) texts.emplace_back(*text);
        }
        if (array && texts.size() == array->size()) return texts;
        _refuse(key, "is not an array of strings");
        return std::nullopt;
    }

    std::optional<double> _number(std::string_view key) {
        const auto* value = _find(key);
        if (!value) return std::nullopt;
        const auto number = numberFromJSON(*value);
        if (!number) _refuse(key, "is not a finite number");
        return number;
    }

    std::optional<double> _amount(std::string_view key) {
        const auto number = _number(key);
        if (!number || *number >= 0) return number;
        _refuse(key, "is negative");
        return std::nullopt;
    }

    void _refuse(std::string_view key, std::string_view why) { _problems.push_back(fmt::format("{} {}", key, why)); }

    const boost::json::object& _dictionary;
    std::vector<std::string>& _problems;
};

ORXBag::ORXBag(std::shared_ptr<const boost::json::object> rawBag, std::string userAgent)
    : _rawBag(std::move(rawBag)),
      _userAgent(std::move(userAgent)),
      _effective(_withOverrides()) {
    _read();
}

ORXBag::~ORXBag() = default;

const std::string& ORXBag::text() const {
    std::call_once(_textOnce, [this] { _text = boost::json::serialize(*_rawBag); });
    return _text;
}

std::shared_ptr<const boost::json::object> ORXBag::_withOverrides() {
    const auto* overrides = _rawBag->if_contains("user_agents");
    if (!overrides) return _rawBag;
    const auto* elements = overrides->if_array();
    if (!elements) {
        _problems.emplace_back("user_agents is not an array");
        return _rawBag;
    }
    const std::string lowerAgent = platform::lowercased(_userAgent);
    std::shared_ptr<boost::json::object> effective;
    for (const auto& element : *elements) {
        const auto* object = element.if_object();
        const auto match = object ? stringMember(*object, "match") : std::nullopt;
        const auto* values = object ? object->if_contains("values") : nullptr;
        if (!match || !values || !values->is_object()) {
            _problems.emplace_back("user_agents holds an element without match and values");
            continue;
        }
        if (_userAgent.empty() || lowerAgent.find(*match) == std::string::npos) continue;
        if (!effective) effective = std::make_shared<boost::json::object>(*_rawBag);
        for (const auto& [key, value] : values->get_object()) effective->insert_or_assign(key, value);
    }
    return effective ? effective : _rawBag;
}

void ORXBag::_read() {
    Reader reader(*_effective, _problems);
    reader.readVersion(_version);
    reader.read("enabled", _isEnabled);
    reader.readURL("warm_url", _warmURL);
    reader.readURL("search_url", _searchURL);
    reader.readURL("more_results_url", _moreResultsURL);
    reader.readURL("card_url", _cardURL);
    reader.readURL("flight_url", _flightURL);
    reader.readURL("feedback_url", _feedbackURL);
    reader.readURL("crowdsourcing_url", _crowdsourcingURL);
    reader.read("feedback_enabled", _feedbackEnabled);
    reader.read("resources", _resources);
    reader.read("lookup_enabled", _lookupEnabled);
    reader.read("supported_geo_location_sources", _supportedGeoLocationSources);
    reader.read("cindora_configuration", _cindoraConfiguration);
    reader.read("send_geo_environment_header", _sendGeoEnvironmentHeader);
    reader.readAmount("timeout_interval_for_request", _timeoutIntervalForRequest);
    reader.readAmount("search_render_timeout", _searchRenderTimeout);
    reader.readCount("minimum_query_length", _minimumQueryLength);
    reader.read("smart_history_enabled", _smartHistoryEnabled);
    reader.read("smart_history_feature_feedback_enabled", _smartHistoryFeatureFeedbackEnabled);
    reader.readCount("smart_history_minimum_query_length", _smartHistoryMinimumQueryLength);
    reader.readCount("smart_history_completion_return_count", _smartHistoryCompletionReturnCount);
    reader.readCount("smart_history_max_rows", _smartHistoryMaxRows);
    reader.readCount("smart_history_sample_threshold", _smartHistorySampleThreshold);
    reader.readAmount("smart_history_timeout", _smartHistoryTimeout);
    reader.readNumber("brovia_last_1hour", _broviaLast1hour);
    reader.readNumber("brovia_last_1day", _broviaLast1day);
    reader.readNumber("brovia_last_1week", _broviaLast1week);
    reader.readNumber("brovia_last_1month", _broviaLast1month);
    reader.readNumber("brovia_all", _broviaAll);
    reader.readNumber("brovia_most_recent", _broviaMostRecent);
    reader.readNumber("min_threshold_to_send", _minThresholdToSend);
    reader.readAmount("subscription_ttl", _subscriptionTTL);
    reader.read("subscription_provider_bundle_identifier_whitelist", _subscriptionProviderBundleIdentifierWhitelist);
    reader.read("subscription_provider_domain_whitelist", _subscriptionProviderDomainWhitelist);
    reader.read("maximum_size_for_feedback_type", _maximumSizeForFeedbackType);
    reader.read("hashtag_images_enabled", _hashtagImagesEnabled);
}

}  // namespace orvex
