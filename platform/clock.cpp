#include "platform/clock.h"

#include <cmath>

namespace orvex::platform {

double secondsSince1970(WallTime time) { return std::chrono::duration<double>(time.time_since_epoch()).count(); }

WallTime wallTimeFromSeconds(double seconds) {
    if (std::isnan(seconds)) return {};
    if (seconds >= secondsSince1970(WallTime::max())) return WallTime::max();
    if (seconds <= secondsSince1970(WallTime::min())) return WallTime::min();
    // Apart, since the product would lose the last digits of a present date.
    const double whole = std::trunc(seconds);
    const auto fraction = std::llround((seconds - whole) * 1e9);
    return WallTime(std::chrono::seconds(std::llround(whole)) + std::chrono::nanoseconds(fraction));
}

}  // namespace orvex::platform
