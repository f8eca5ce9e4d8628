#include "feedback/orvexd_user_agent.h"

#include <fmt/core.h>

#include "core/constants.h"
#include "platform/device_information.h"

namespace orvex {

std::string orvexdUserAgent(const platform::DeviceInformation& device) {
    const std::string& daemon = kORXOrvexdNameVersion();
    return fmt::format("{} ({}) {}", daemon, platform::deviceDescription(device), daemon);
}

}  // namespace orvex
