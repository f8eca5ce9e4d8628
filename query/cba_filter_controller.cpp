#include "query/cba_filter_controller.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/page_url.h"

namespace orvex {
namespace {

using ShownURLs = std::map<std::int64_t, std::set<std::string>>;  // by query

platform::Result<platform::URL> pageOf(std::string_view text) {
    auto url = platform::parseURL(text);
    if (!url) return url;
    auto embedded = componentsForEmbeddedAMPURL(*url);
    return embedded ? *std::move(embedded) : std::move(url);
}

bool isWebSection(std::string_view section) {
    return section == "com.kelvar.orvex.web_suggest" || section == "com.kelvar.orvex.web_index";
}

void noteShown(const CXVisibleResultsFeedback& visible, std::int64_t queryId, ShownURLs& shown) {
    for (const auto& result : visible.results()) {
        if (!isWebSection(result.section_bundle_identifier()) || result.punchout().urls().empty()) continue;
        shown[queryId].insert(result.punchout().urls().begin(), result.punchout().urls().end());
    }
}

/// Whether the engagement is kept.
bool label(CXCBAEngagementFeedback& engagement, const std::set<std::string>& shown) {
    const std::string engaged = engagement.url();
    engagement.clear_url();
    auto closest = CBAMatchType::none;
    for (const auto& url : shown) {
        closest = std::max(closest, CBAFilterController::cbaMatchTypeBetweenURLs(url, engaged));
        if (closest == CBAMatchType::identical) break;
    }
    engagement.set_cba_type(static_cast<std::int32_t>(closest));
    return closest != CBAMatchType::none;
}

bool isKept(CXOrvexFeedback& record, ShownURLs& shown) {
    const auto* codable = codableOf(record);
    if (codable == nullptr) return true;
    if (codable->GetDescriptor() == CXVisibleResultsFeedback::descriptor()) {
        noteShown(record.payload().visible_results(), record.query_id(), shown);
    } else if (codable->GetDescriptor() == CXCBAEngagementFeedback::descriptor()) {
        return label(*record.mutable_payload()->mutable_cba_engagement(), shown[record.query_id()]);
    }
    return true;
}

}  // namespace

std::vector<CXOrvexFeedback> CBAFilterController::arrayOfCBAFilteredFeedback(std::vector<CXOrvexFeedback> records) {
    ShownURLs shown;
    std::vector<CXOrvexFeedback> kept;
    kept.reserve(records.size());
    for (auto& record : records) {
        if (isKept(record, shown)) kept.push_back(std::move(record));
    }
    return kept;
}

CBAMatchType CBAFilterController::cbaMatchTypeBetweenURLs(std::string_view shown, std::string_view engaged) {
    if (shown.empty() || engaged.empty()) return CBAMatchType::none;
    auto a = pageOf(shown);
    auto b = pageOf(engaged);
    if (!a || !b) return CBAMatchType::none;
    if (*a == *b) return CBAMatchType::identical;
    a->query.reset();
    b->query.reset();
    if (*a == *b) return CBAMatchType::sameButQuery;
    const auto site = normalizedURLStringForTLDFeatures(*a);
    const bool sameSite = !site.empty() && site == normalizedURLStringForTLDFeatures(*b);
    return sameSite ? CBAMatchType::sameSite : CBAMatchType::none;
}

}  // namespace orvex
