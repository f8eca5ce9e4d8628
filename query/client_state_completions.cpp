#include <algorithm>
#include <iterator>

#include "core/orx_bag.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/text.h"
#include "query/client_state.h"
#include "query/engaged_completion_cache.h"

// Completions of this device, which a search takes along: the best goes to the server with the request, the others
// come back with the reply.

namespace orvex {
namespace {

constexpr std::uint32_t eventsWithCompletions[] = {21, 24};
constexpr std::uint64_t defaultReturnCount = 3;

const platform::Logger& searchLog() { return OrvexLogForCategory(OrvexLoggingCategory::search); }

bool takesPart(std::int64_t client, std::uint32_t triggerEvent) {
    if (client == engagedByLumisk)
        return std::ranges::find(eventsWithCompletions, triggerEvent) != std::end(eventsWithCompletions);
    return client == engagedByBrovia;
}

std::uint64_t countFor(std::int64_t client, const ORXBag& bag) {
    if (client == engagedByBrovia) return 1;
    return bag.smartHistoryCompletionReturnCount() == 0 ? defaultReturnCount : bag.smartHistoryCompletionReturnCount();
}

std::chrono::nanoseconds timeoutOf(const ORXBag& bag) {
    constexpr double longest = 60'000;
    const std::chrono::duration<double, std::milli> timeout(std::min(bag.smartHistoryTimeout(), longest));
    return std::chrono::duration_cast<std::chrono::nanoseconds>(timeout);
}

}  // namespace

ORXReplyCallback ClientState::_offerLocalCompletions(ORXSearchRequest& request, const ORXBag& bag,
                                                     ORXReplyCallback reply) const {
    const auto client = engagedClientNumber(clientShortName());
    const bool longEnough = platform::utf16Length(request.queryString) >= bag.smartHistoryMinimumQueryLength();
    if (!bag.smartHistoryEnabled() || !longEnough || !takesPart(client, request.triggerEvent)) return reply;

    const auto recorded = _recordedWithUserGUID(request.queryId);
    const auto localSearch = _feedback.localSearchBegan(recorded, request);
    auto found = EngagedCompletionCache::sharedInstance(_assembly)->completionsForInput(
        request.queryString, client, countFor(client, bag), timeoutOf(bag));
    _feedback.localSearchEnded(recorded, localSearch);
    if (found.empty()) {
        searchLog().debug("Local completion not found: input {}", platform::privately(request.queryString));
        return reply;
    }
    searchLog().debug("{} Total completions found for {}, {} remaining", found.size(),
                      platform::privately(request.queryString), found.size() - 1);
    request.completionCacheSuggestions.clear();
    request.completionCacheSuggestions.push_back(std::move(found.front()));
    found.erase(found.begin());
    if (found.empty()) return reply;
    return [reply = std::move(reply), rest = std::move(found)](std::uint64_t queryId, std::optional<ORXReply> answer,
                                                               std::optional<ORXError> error) mutable {
        if (answer) std::ranges::move(rest, std::back_inserter(answer->localSuggestions));
        reply(queryId, std::move(answer), std::move(error));
    };
}

}  // namespace orvex
