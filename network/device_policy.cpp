#include "network/device_policy.h"

#include <boost/json.hpp>
#include <cerrno>

#include "core/json.h"
#include "platform/settings_file.h"

namespace orvex {

platform::Result<DevicePolicy> readDevicePolicy(const platform::SettingsFile& file) {
    const auto text = file.read();
    if (!text && text.error().code == ENOENT) return DevicePolicy();
    if (!text) return std::unexpected(text.error());
    const auto json = parseJSON(*text, kBagJSONDepth);
    if (!json) return std::unexpected(json.error());
    if (!json->is_object()) return platform::failure(0, "no JSON object");

    bool wellTyped = true;
    const auto flag = [&](std::string_view name, bool otherwise) {
        const auto* member = json->get_object().if_contains(name);
        if (member && !member->is_bool()) wellTyped = false;
        return member && member->is_bool() ? member->get_bool() : otherwise;
    };
    const bool managed = flag("managed_account", false);
    const bool installation = flag("app_installation_allowed", true);
    const bool mediaStore = flag("media_store_allowed", true);
    if (!wellTyped) return platform::failure(0, "an entry is no boolean");
    return DevicePolicy{.managedAccount = managed, .deviceRestricted = !installation || !mediaStore};
}

}  // namespace orvex
