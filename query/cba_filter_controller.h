#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace orvex {

class CXOrvexFeedback;

/// How closely the page that a user engaged fits one that was shown.
enum class CBAMatchType : std::int32_t {
    none = 0,
    sameSite = 1,      ///< the same registrable domain, or host
    sameButQuery = 2,  ///< the same URL apart from the query
    identical = 3,
};

/// Screens the records of a session before they are sent, so that no page that a user went to leaves the device: an
/// engagement (`CXCBAEngagementFeedback`) is kept only when its page fits a web result that an earlier record showed
/// for the same query. It then says how closely, and its URL is gone.
class CBAFilterController {
public:
    /// In the same order, possibly fewer.
    [[nodiscard]] static std::vector<CXOrvexFeedback> arrayOfCBAFilteredFeedback(std::vector<CXOrvexFeedback> records);

    /// Parts of URLs compare as text, the fragment included; an accelerated page counts as the page that it shows.
    [[nodiscard]] static CBAMatchType cbaMatchTypeBetweenURLs(std::string_view shown, std::string_view engaged);
};

}  // namespace orvex
