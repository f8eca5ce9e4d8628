#pragma once

#include <functional>
#include <string>

namespace orvex::platform {

class Bus;

/// For a program that leaves while others may be calling it: gives the name back, then calls `drained` on the bus
/// thread, once every call that was sent to the name has been handed out.
void giveBackName(Bus& bus, std::string name, std::move_only_function<void()> drained);

}  // namespace orvex::platform
