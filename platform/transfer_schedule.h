#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "platform/clock.h"
#include "platform/device_conditions.h"

namespace orvex::platform {

/// What a session asks of its moments.
struct TransferRules {
    static constexpr std::size_t maxAtOnce = 4;

    bool waitsForMains = false;  ///< until a task's window closes
    bool waitsForUnmetered = false;
};

/// The moments of one task. By the monotonic clock, so that a date that jumps moves none of them.
struct TransferMoments {
    std::optional<MonotonicTime> earliestBegin;
    MonotonicTime windowEnd;  ///< from then on it no longer waits for mains
    MonotonicTime deadline;   ///< its resource time-out
};

/// The session at this moment.
struct TransferSituation {
    MonotonicTime now;
    Conditions conditions;
    std::size_t underWay = 0;
    std::optional<MonotonicTime> nextAttempt;  ///< while backing off
};

/// Why a task does not begin now. `until` is none when no moment ends it: an event will.
struct TransferWait {
    std::string_view why;
    std::optional<MonotonicTime> until;
};

/// None: the task may begin.
[[nodiscard]] std::optional<TransferWait> transferWait(const TransferRules& rules, const TransferMoments& moments,
                                                       const TransferSituation& situation);

}  // namespace orvex::platform
