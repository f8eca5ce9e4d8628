#pragma once

#include "platform/clock.h"
#include "platform/locale.h"

namespace orvex::platform {

/// Whether both fall into the same day of the calendar and time zone of `locale`. Defined in platform/linux.
[[nodiscard]] bool isSameDay(WallTime a, WallTime b, const LocaleSettings& locale);

}  // namespace orvex::platform
