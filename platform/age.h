#pragma once

#include <chrono>

#include "platform/clock.h"

namespace orvex::platform {

/// How long ago `date` was, for something that lives for days. What a wrong clock makes of it counts as just now: a
/// date to come, and one more than ten years back, which was read before the clock was set, or is read while it is not.
std::chrono::duration<double> ageOf(WallTime date, WallTime now);

}  // namespace orvex::platform
