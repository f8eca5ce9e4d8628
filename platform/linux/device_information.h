#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/device_information.h"

namespace orvex::platform {

/// The machine's firmware tells the product, os-release(5) the system. Read once, while constructed. A build that has
/// no BUILD_ID is its codename.
class LinuxDeviceInformation : public DeviceInformation {
public:
    struct Files {
        std::string productName = "/sys/class/dmi/id/product_name";
        std::vector<std::string> osRelease = {"/etc/os-release", "/usr/lib/os-release"};  ///< the first that is there
    };

    LinuxDeviceInformation() : LinuxDeviceInformation(Files()) {}
    explicit LinuxDeviceInformation(const Files& files);

    [[nodiscard]] std::string answer(std::string_view question) const override;

private:
    const std::map<std::string, std::string, std::less<>> _answers;
};

}  // namespace orvex::platform
