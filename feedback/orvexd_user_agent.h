#pragma once

#include <string>

namespace orvex::platform {
class DeviceInformation;
}

namespace orvex {

/// The daemon's own user agent, which is also the version of the session files that it writes: "orvexd/VERSION (DEVICE)
/// orvexd/VERSION".
[[nodiscard]] std::string orvexdUserAgent(const platform::DeviceInformation& device);

}  // namespace orvex
