#include "platform/transfer_schedule.h"

namespace orvex::platform {

std::optional<TransferWait> transferWait(const TransferRules& rules, const TransferMoments& moments,
                                         const TransferSituation& situation) {
    const auto& [now, conditions, underWay, nextAttempt] = situation;
    if (moments.earliestBegin && *moments.earliestBegin > now)
        return TransferWait{"its earliest begin", moments.earliestBegin};
    if (!conditions.isConnected) return TransferWait{"a network", {}};
    if (rules.waitsForUnmetered && conditions.isMetered) return TransferWait{"a network that is not metered", {}};
    if (rules.waitsForMains && !conditions.isOnMains && moments.windowEnd > now)
        return TransferWait{"mains", moments.windowEnd};
    if (nextAttempt && *nextAttempt > now) return TransferWait{"the session's next attempt", nextAttempt};
    if (nextAttempt && underWay > 0) return TransferWait{"the one task that probes", {}};
    if (underWay >= TransferRules::maxAtOnce) return TransferWait{"a free place", {}};
    return std::nullopt;
}

}  // namespace orvex::platform
