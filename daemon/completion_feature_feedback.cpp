#include "daemon/completion_feature_feedback.h"

#include <boost/json.hpp>

#include "core/constants.h"
#include "core/feedback_records.pb.h"
#include "core/json.h"
#include "core/orx_bag.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/base64.h"
#include "platform/dispatch.h"
#include "platform/file_manager.h"
#include "platform/user_defaults.h"
#include "platform/uuid.h"
#include "query/engaged_completion_cache.h"

namespace orvex {
namespace {

constexpr int engagedCompletionType = 6;  // of custom feedback

const platform::Logger& feedbackLog() { return OrvexLogForCategory(OrvexLoggingCategory::feedback); }

/// What the server's blob asks to be counted: the input, when it asks for anything.
std::optional<std::string> inputToCount(const std::string& blob) {
    const auto text = platform::decodedBase64(blob);
    const auto json = text ? parseJSON(*text, kBagJSONDepth) : platform::failure(0, "not base64");
    if (!json) {
        feedbackLog().error("sendCompletionFeatureFeedbackForResult failed to parse JSON: {}", json.error().text);
        return std::nullopt;
    }
    const auto* object = json->if_object();
    const auto* localCompletion = object != nullptr ? object->if_contains("lc") : nullptr;
    if (localCompletion == nullptr || !localCompletion->is_bool() || !localCompletion->get_bool()) return std::nullopt;
    return stringMember(*object, "q").value_or("");
}

std::string reportBytes(const std::map<std::string, std::int64_t>& counts, platform::MonotonicTime now) {
    boost::json::object json;
    for (const auto& [name, count] : counts) json[name] = count;
    CXCustomFeedback report;
    report.set_timestamp(static_cast<std::uint64_t>(now.time_since_epoch().count()));
    report.set_custom_type(engagedCompletionType);
    report.set_json_feedback(boost::json::serialize(json));
    return report.SerializeAsString();
}

}  // namespace

bool CompletionFeatureFeedback::_isSampled() const {
    const auto now = platform::secondsSince1970(_assembly.dispatcher().wallNow());
    const auto second = static_cast<std::int64_t>(now) % 100;
    return second >= 0 && static_cast<std::uint64_t>(second) < _bag->smartHistorySampleThreshold();
}

void CompletionFeatureFeedback::sendForResult(const CXResult& result, std::int64_t client, Engaged didEngage) const {
    if (_assembly.userDefaults().boolean(setting::feedbackDisabled)) return;
    if (_bag == nullptr || !_bag->smartHistoryFeatureFeedbackEnabled()) return;
    if (!_isSampled() || result.fbr().empty()) return;
    auto input = inputToCount(result.fbr());
    if (!input) return;
    EngagedCompletionCache::sharedInstance(_assembly)->featureCountsForInput(
        *std::move(input), client,
        [&assembly = _assembly, client, didEngage](EngagedCompletionCache::FeatureCounts counts) {
            if (counts.empty()) return;
            counts["e"] = didEngage == Engaged::yes ? 1 : 0;
            counts["c"] = client;
            sendCounts(assembly, counts);
        });
}

void CompletionFeatureFeedback::sendCounts(Assembly& assembly, const std::map<std::string, std::int64_t>& counts) {
    if (counts.empty()) return;
    auto caches = assembly.fileManager().cachesDirectory();
    if (!caches) {
        feedbackLog().error("sendCustomFeedback failed getting a caches dir: {}", caches.error().text);
        return;
    }
    // The new file has a name with a dot until it is whole, which the flusher passes over.
    const auto name = "CustomFeedback/" + std::string(customFeedbackDirectoryName(engagedCompletionType));
    auto directory = (*caches)->directory(name);
    const auto written =
        directory ? (*directory)->replace(platform::newUUIDString(), reportBytes(counts, assembly.dispatcher().now()))
                  : std::unexpected(directory.error());
    if (!written) feedbackLog().error("sendCustomFeedback failed creating file: {}", written.error().text);
}

}  // namespace orvex
