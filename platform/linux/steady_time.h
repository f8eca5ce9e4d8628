#pragma once

#include <chrono>

#include "platform/clock.h"

namespace orvex::platform {

/// On Linux the steady clock is CLOCK_MONOTONIC, in nanoseconds, as ours is.
inline MonotonicTime steadyNow() { return MonotonicTime(std::chrono::steady_clock::now().time_since_epoch()); }

/// For a condition variable to wait until.
inline std::chrono::steady_clock::time_point asSteady(MonotonicTime time) {
    return std::chrono::steady_clock::time_point(time.time_since_epoch());
}

}  // namespace orvex::platform
