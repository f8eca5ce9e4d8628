#pragma once

#include <string_view>
#include <vector>

#include "platform/bus.h"

namespace orvex {

/// What the daemon exports at its object: the client interface, the launch service's and the operators'. docs/interface
/// has the same as XML; a test holds the two together.
std::vector<platform::BusInterface> orvexdInterfaces();

}  // namespace orvex
