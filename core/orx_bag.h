#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvex {

/// The server's configuration as one user agent sees it: a view of the raw dictionary through accessors, with the
/// overrides for that agent ("user_agents") applied. Immutable, so any thread may read it; bound to another agent by
/// making another one over the same `rawBag`.
///
/// A key that is absent gives its default. So does one of the wrong type, one that is not finite, one that is negative
/// where it counts something, and a URL that the URL rule refuses (platform/url.h): these are told in `problems`.
class ORXBag {
public:
    /// `rawBag` is not null. An empty `userAgent` matches no override.
    ORXBag(std::shared_ptr<const boost::json::object> rawBag, std::string userAgent);
    ~ORXBag();
    ORXBag(const ORXBag&) = delete;
    ORXBag& operator=(const ORXBag&) = delete;

    /// The dictionary as it came, "__" keys of the bag controller included.
    [[nodiscard]] const std::shared_ptr<const boost::json::object>& rawBag() const { return _rawBag; }
    /// The same as JSON text, as clients get it; made on first use and kept.
    [[nodiscard]] const std::string& text() const;
    [[nodiscard]] const std::string& userAgent() const { return _userAgent; }
    /// One sentence for each value that was not taken.
    [[nodiscard]] const std::vector<std::string>& problems() const { return _problems; }

    [[nodiscard]] const std::optional<std::string>& version() const { return _version; }
    [[nodiscard]] bool isEnabled() const { return _isEnabled; }

    // Endpoints, each acceptable to the URL rule.
    [[nodiscard]] const std::optional<std::string>& warmURL() const { return _warmURL; }
    [[nodiscard]] const std::optional<std::string>& searchURL() const { return _searchURL; }
    [[nodiscard]] const std::optional<std::string>& moreResultsURL() const { return _moreResultsURL; }
    [[nodiscard]] const std::optional<std::string>& cardURL() const { return _cardURL; }
    [[nodiscard]] const std::optional<std::string>& flightURL() const { return _flightURL; }
    [[nodiscard]] const std::optional<std::string>& feedbackURL() const { return _feedbackURL; }
    [[nodiscard]] const std::optional<std::string>& crowdsourcingURL() const { return _crowdsourcingURL; }

    [[nodiscard]] bool feedbackEnabled() const { return _feedbackEnabled; }
    [[nodiscard]] bool lookupEnabled() const { return _lookupEnabled; }
    [[nodiscard]] bool hashtagImagesEnabled() const { return _hashtagImagesEnabled; }
    [[nodiscard]] bool sendGeoEnvironmentHeader() const { return _sendGeoEnvironmentHeader; }
    [[nodiscard]] const std::vector<std::string>& supportedGeoLocationSources() const {
        return _supportedGeoLocationSources;
    }

    [[nodiscard]] double timeoutIntervalForRequest() const { return _timeoutIntervalForRequest; }  ///< seconds
    [[nodiscard]] const std::optional<double>& searchRenderTimeout() const { return _searchRenderTimeout; }  ///< ms
    [[nodiscard]] std::uint64_t minimumQueryLength() const { return _minimumQueryLength; }  ///< UTF-16 code units

    [[nodiscard]] bool smartHistoryEnabled() const { return _smartHistoryEnabled; }
    [[nodiscard]] bool smartHistoryFeatureFeedbackEnabled() const { return _smartHistoryFeatureFeedbackEnabled; }
    [[nodiscard]] std::uint64_t smartHistoryMinimumQueryLength() const { return _smartHistoryMinimumQueryLength; }
    [[nodiscard]] std::uint64_t smartHistoryCompletionReturnCount() const { return _smartHistoryCompletionReturnCount; }
    [[nodiscard]] std::uint64_t smartHistoryMaxRows() const { return _smartHistoryMaxRows; }
    [[nodiscard]] std::uint64_t smartHistorySampleThreshold() const { return _smartHistorySampleThreshold; }
    [[nodiscard]] double smartHistoryTimeout() const { return _smartHistoryTimeout; }  ///< milliseconds

    // Weights of engagements by age, and the least score that is offered.
    [[nodiscard]] double broviaLast1hour() const { return _broviaLast1hour; }
    [[nodiscard]] double broviaLast1day() const { return _broviaLast1day; }
    [[nodiscard]] double broviaLast1week() const { return _broviaLast1week; }
    [[nodiscard]] double broviaLast1month() const { return _broviaLast1month; }
    [[nodiscard]] double broviaAll() const { return _broviaAll; }
    [[nodiscard]] double broviaMostRecent() const { return _broviaMostRecent; }
    [[nodiscard]] double minThresholdToSend() const { return _minThresholdToSend; }

    using Texts = std::vector<std::string>;
    [[nodiscard]] double subscriptionTTL() const { return _subscriptionTTL; }  ///< seconds
    [[nodiscard]] const std::optional<Texts>& subscriptionProviderBundleIdentifierWhitelist() const {
        return _subscriptionProviderBundleIdentifierWhitelist;
    }
    [[nodiscard]] const std::optional<Texts>& subscriptionProviderDomainWhitelist() const {
        return _subscriptionProviderDomainWhitelist;
    }

    // Objects live as long as the bag; null where there is none. What they hold is not checked.
    [[nodiscard]] const boost::json::object* resources() const { return _resources; }
    [[nodiscard]] const boost::json::object* cindoraConfiguration() const { return _cindoraConfiguration; }
    [[nodiscard]] const boost::json::object* maximumSizeForFeedbackType() const { return _maximumSizeForFeedbackType; }

private:
    class Reader;

    /// The raw dictionary, or a copy of it with the agent's overrides where one matches.
    std::shared_ptr<const boost::json::object> _withOverrides();
    void _read();

    const std::shared_ptr<const boost::json::object> _rawBag;
    const std::string _userAgent;
    mutable std::once_flag _textOnce;
    mutable std::string _text;
    std::vector<std::string> _problems;
    const std::shared_ptr<const boost::json::object> _effective;  ///< owns what the pointers below point at

    std::optional<std::string> _version;
    std::optional<std::string> _warmURL, _searchURL, _moreResultsURL, _cardURL, _flightURL, _feedbackURL,
        _crowdsourcingURL;
    bool _isEnabled = true;
    bool _feedbackEnabled = false;
    bool _lookupEnabled = true;
    bool _hashtagImagesEnabled = true;
    bool _sendGeoEnvironmentHeader = false;
    bool _smartHistoryEnabled = false;
    bool _smartHistoryFeatureFeedbackEnabled = false;
    Texts _supportedGeoLocationSources;
    std::optional<Texts> _subscriptionProviderBundleIdentifierWhitelist, _subscriptionProviderDomainWhitelist;
    double _timeoutIntervalForRequest = 10;
    std::optional<double> _searchRenderTimeout;
    double _smartHistoryTimeout = 50;
    double _subscriptionTTL = 0;
    std::uint64_t _minimumQueryLength = 0;
    std::uint64_t _smartHistoryMinimumQueryLength = 0;
    std::uint64_t _smartHistoryCompletionReturnCount = 0;
    std::uint64_t _smartHistoryMaxRows = 0;
    std::uint64_t _smartHistorySampleThreshold = 0;
    double _broviaLast1hour = 10;
    double _broviaLast1day = 1;
    double _broviaLast1week = 0.1;
    double _broviaLast1month = 0.01;
    double _broviaAll = 0.001;
    double _broviaMostRecent = 1;
    double _minThresholdToSend = 0;
    const boost::json::object* _resources = nullptr;
    const boost::json::object* _cindoraConfiguration = nullptr;
    const boost::json::object* _maximumSizeForFeedbackType = nullptr;
};

}  // namespace orvex
