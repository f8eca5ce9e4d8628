#pragma once

#include "platform/bus.h"
#include "platform/device_conditions.h"

namespace orvex::platform {

/// Tells `conditions`, which outlives the bus, what NetworkManager ("Metered", "Connectivity") and UPower ("OnBattery")
/// say, now and whenever they change. Without these services nothing is told, and the best is assumed. A guess that the
/// network is metered counts as that; a captive portal is no network yet.
///
/// Returns at once; the answers come on the bus thread.
void followSystemConditions(Bus& systemBus, DeviceConditions& conditions);

}  // namespace orvex::platform
