#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvex::platform {

/// What machine and system this is; constant for the life of the process. Control characters are removed.
class DeviceInformation {
public:
    virtual ~DeviceInformation() = default;
    /// For "ProductType", "ProductName", "ProductVersion" and "BuildVersion"; "Linux" where the system does not say.
    [[nodiscard]] virtual std::string answer(std::string_view question) const = 0;
};

/// "%@; %@ %@ %@" of the four answers: the device part of every user agent.
std::string deviceDescription(const DeviceInformation& device);

}  // namespace orvex::platform
