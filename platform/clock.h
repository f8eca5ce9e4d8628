#pragma once

#include <chrono>
#include <cstdint>

namespace orvex::platform {

/// Two clocks as two types that do not mix: time that only goes forward, and the date, which anyone may change.
/// Both are read through a `Dispatcher`, so that a test moves them by hand.
struct MonotonicClock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<MonotonicClock, duration>;
    static constexpr bool is_steady = true;
};

struct WallClock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<WallClock, duration>;
    static constexpr bool is_steady = false;
};

using MonotonicTime = MonotonicClock::time_point;
using WallTime = WallClock::time_point;

/// The form that dates have in files, on the bus and on the wire: seconds since 1970-01-01 00:00 UTC.
double secondsSince1970(WallTime time);

/// Saturates at what a WallTime can hold (about the years 1678 to 2262); NaN gives 1970.
WallTime wallTimeFromSeconds(double seconds);

}  // namespace orvex::platform
