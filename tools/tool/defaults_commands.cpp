#include <fmt/format.h>

#include <algorithm>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <boost/json/value_from.hpp>

#include "core/json.h"
#include "core/settings.h"
#include "core/whitelist_signature.h"
#include "platform/linux/file_manager.h"
#include "platform/linux/file_watcher.h"
#include "platform/linux/user_defaults.h"
#include "tools/tool/commands.h"

// The daemon's settings are a file that every program of the user may change, under the writers' lock: the tool does so
// itself, and a daemon that runs sees the change. What the daemon stores there beside them, it explains.

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

/// A setting that, when it is on, keeps something to the device.
struct PrivacySwitch {
    std::string_view name;
    std::string_view key;
    std::string_view allowed;
    std::string_view keptBack;
};
constexpr PrivacySwitch privacySwitches[] = {
    {"search", setting::networkSearchDisabled, "queries are sent to the server", "answers come from memory alone"},
    {"feedback", setting::feedbackDisabled, "feedback is gathered and sent", "no feedback is gathered or sent"},
    {"location", setting::locationDisabled, "the position is told as far as it is allowed",
     "no position is asked for or told"},
    {"completions", setting::disableLocalCompletions, "picked completions are remembered",
     "none are remembered or offered"},
};

ExitStatus showPrivacy(const Options& options) {
    const Settings settings;
    json::object document;
    for (const auto& one : privacySwitches) {
        const bool keptBack = settings.defaults.boolean(one.key);
        document[one.name] = !keptBack;
        if (!options.json) {
            fmt::print("{:<12} {:<4} {}\n", one.name, keptBack ? "off" : "on", keptBack ? one.keptBack : one.allowed);
        }
    }
    if (options.json) fmt::print("{}\n", json::serialize(document));
    return ExitStatus::done;
}

std::optional<std::string> storedSignature() {
    const Settings settings;
    const auto stored = settings.defaults.stored();
    const auto found = stored.find(setting::appWhitelistSignature);
    return found == stored.end() ? std::nullopt : found->second.coerceToString();
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

ExitStatus privacy(const Options& options, const std::string& what, const std::string& value) {
    if (what.empty()) return showPrivacy(options);
    const auto* found = std::ranges::find(privacySwitches, what, &PrivacySwitch::name);
    if (found == std::end(privacySwitches) || (value != "on" && value != "off")) {
        fmt::print(stderr, "orvex_tool: expected search, feedback, location or completions, then on or off\n");
        return ExitStatus::wrongUsage;
    }
    Settings settings;
    const auto changed = settings.defaults.setObject(found->key, value == "off");
    return changed ? showPrivacy(options) : tell(changed);
}

ExitStatus showSignature(const Options& options, const std::string& text) {
    const auto stored = text.empty() ? storedSignature() : text;
    if (!stored) {
        fmt::print(stderr, "orvex_tool: no signature is stored\n");
        return ExitStatus::refused;
    }
    const auto signature = checkSignature(*stored);
    if (!signature) {
        fmt::print(stderr, "orvex_tool: no valid signature: {}\n", signature.error().text);
        return ExitStatus::refused;
    }
    const auto ids = signature->ids();
    const auto version = fmt::format("{:04x}", signature->version);
    if (options.json) {
        fmt::print("{}\n", json::serialize(json::object{{"version", version},
                                                        {"compressed", signature->compressed},
                                                        {"bitmap_bytes", signature->bitmap.size()},
                                                        {"ids", json::value_from(ids)}}));
    } else {
        fmt::print("version   ends in {} (its highest bit is not told)\n", version);
        fmt::print("bitmap    {} bytes, {}\n", signature->bitmap.size(),
                   signature->compressed ? "run-length coded" : "as it is");
        fmt::print("checks    checksum and digest are right\n");
        fmt::print("installed {}\n", ids.empty() ? "none that is told" : fmt::format("{}", fmt::join(ids, " ")));
    }
    return ExitStatus::done;
}

}  // namespace orvex::tool
