#pragma once

#include <string_view>

#include "platform/result.h"

namespace orvex::platform {
class SettingsFile;
}

namespace orvex {

/// What the device's owner has decided.
struct DevicePolicy {
    bool managedAccount = false;
    bool deviceRestricted = false;  ///< applications may not be installed, or media not be bought

    bool operator==(const DevicePolicy&) const = default;
};

/// Reads `{"managed_account": b, "app_installation_allowed": b, "media_store_allowed": b}`. No file: unmanaged and
/// unrestricted, and so is what it does not say. Fails on what is no such object.
platform::Result<DevicePolicy> readDevicePolicy(const platform::SettingsFile& file);

}  // namespace orvex
