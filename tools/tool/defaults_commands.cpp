#include <fmt/format.h>

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

#include "core/json.h"
#include "platform/linux/file_manager.h"
#include "platform/linux/file_watcher.h"
#include "platform/linux/user_defaults.h"
#include "tools/tool/commands.h"

// The daemon's settings are a file that every program of the user may change, under the writers' lock: the tool does so
// itself, and a daemon that runs sees the change.

namespace orvex::tool {
namespace {

namespace json = boost::json;

/// The stored settings, opened for one command.
struct Settings {
    platform::LinuxFileManager files{platform::LinuxFileManager::Environment::ofProcess()};
    platform::FileWatcher watcher;
    platform::LinuxUserDefaults defaults{files, watcher};
};

ExitStatus tell(const platform::Result<void>& result) {
    if (result) return ExitStatus::done;
    fmt::print(stderr, "orvex_tool: {}\n", result.error().text);
    return ExitStatus::refused;
}

}  // namespace

ExitStatus readDefaults(const Options& options, const std::string& key) {
    const Settings settings;
    const auto stored = settings.defaults.stored();
    if (!key.empty()) {
        const auto found = stored.find(key);
        if (found == stored.end()) {
            fmt::print(stderr, "orvex_tool: {} is not set\n", key);
            return ExitStatus::refused;
        }
        const auto text = found->second.coerceToString();
        const bool plain = !options.json && text.has_value();
        fmt::print("{}\n", plain ? *text : json::serialize(platform::jsonFromPropertyValue(found->second)));
        return ExitStatus::done;
    }
    if (options.json) {
        fmt::print("{}\n", json::serialize(platform::jsonFromPropertyValue(stored)));
        return ExitStatus::done;
    }
    for (const auto& [name, value] : stored) {
        fmt::print("{} = {}\n", name, json::serialize(platform::jsonFromPropertyValue(value)));
    }
    return ExitStatus::done;
}

ExitStatus writeDefault(const Options&, const std::string& key, const std::string& value) {
    const auto parsed = parseJSON(value, kBagJSONDepth);
    auto property = parsed ? platform::propertyValueFromJSON(*parsed) : std::nullopt;
    Settings settings;
    return tell(settings.defaults.setObject(key, property ? *std::move(property) : platform::PropertyValue(value)));
}

ExitStatus deleteDefault(const Options&, const std::string& key) {
    Settings settings;
    return tell(settings.defaults.removeObject(key));
}

}  // namespace orvex::tool
