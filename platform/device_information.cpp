#include "platform/device_information.h"

#include <fmt/format.h>

namespace orvex::platform {

std::string deviceDescription(const DeviceInformation& device) {
    return fmt::format("{}; {} {} {}", device.answer("ProductType"), device.answer("ProductName"),
                       device.answer("ProductVersion"), device.answer("BuildVersion"));
}

}  // namespace orvex::platform
