#pragma once

#include <map>
#include <string>

#include "platform/device_information.h"

namespace orvex::platform {

/// A device whose answers the test gives.
class FakeDeviceInformation : public DeviceInformation {
public:
    std::map<std::string, std::string, std::less<>> answers = {{"ProductType", "Machine1,1"},
                                                               {"ProductName", "Test System"},
                                                               {"ProductVersion", "1.0"},
                                                               {"BuildVersion", "1A1"}};

    [[nodiscard]] std::string answer(std::string_view question) const override {
        const auto found = answers.find(question);
        return found == answers.end() ? "Linux" : found->second;
    }
};

}  // namespace orvex::platform
