#include "network/bag_disk_cache.h"

#include <array>
#include <boost/json.hpp>
#include <cerrno>
#include <string_view>

#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/file_manager.h"
#include "platform/log_events.h"
#include "platform/property_list.h"

namespace orvex {
namespace {

constexpr std::string_view fileName = "bag.plist";

const platform::Logger& bagLog() { return OrvexLogForCategory(OrvexLoggingCategory::bag); }

platform::Result<std::shared_ptr<platform::Directory>> cachesDirectory(const Assembly& assembly) {
    auto directory = assembly.fileManager().cachesDirectory();
    if (!directory) {
        bagLog()
            .as(platform::LogEvent::noDirectory, {{"ORVEX_REASON", directory.error().text}})
            .fault("error getting cache directory {}", directory.error().text);
    }
    return directory;
}

std::string pathOf(const platform::Directory& directory) { return fmt::format("{}/{}", directory.path(), fileName); }

std::string_view className(const platform::PropertyValue& value) {
    static constexpr std::array<std::string_view, std::variant_size_v<platform::PropertyValue::Storage>> names = {
        "boolean", "integer", "double", "string", "date", "data", "array", "dictionary"};
    return names[value.storage().index()];
}

void setAsideBroken(platform::Directory& directory) {
    if (!platform::setAside(directory, fileName)) return;
    bagLog()
        .as(platform::LogEvent::fileSetAside, {{"ORVEX_FILE", pathOf(directory)}})
        .log("{} set aside as {}.corrupt", fileName, fileName);
}

}  // namespace

std::optional<boost::json::object> diskCachedBagDictionary(const Assembly& assembly) {
    if (!assembly.diskBagCacheEnabled()) {
        bagLog().log("skipping check for bag on disk because the flag is disabled");
        return std::nullopt;
    }
    const auto directory = cachesDirectory(assembly);
    if (!directory) return std::nullopt;
    const auto bytes = (*directory)->read(fileName, platform::maxPropertyListBytes);
    if (!bytes && bytes.error().code == ENOENT) return std::nullopt;
    const auto value = bytes ? platform::parsePropertyList(*bytes) : std::unexpected(bytes.error());
    if (!value) {
        bagLog().fault("Error reading from bag cache: {}.", value.error().text);
        if (bytes || platform::saysBrokenFile(value.error())) setAsideBroken(**directory);
        return std::nullopt;
    }
    if (!value->as<platform::PropertyDictionary>()) {
        bagLog().fault("Unexpected class deserialized from bag cache: {}.", className(*value));
        setAsideBroken(**directory);
        return std::nullopt;
    }
    return platform::jsonFromPropertyValue(*value).as_object();
}

void writeBagDictionary(const Assembly& assembly, const boost::json::object& dictionary) {
    if (!assembly.diskBagCacheEnabled()) {
        bagLog().log("skipping writing bag to disk because the flag is disabled");
        return;
    }
    const auto directory = cachesDirectory(assembly);
    if (!directory) {
        bagLog().fault("Couldn't get path to cache bag.  Error: {}.", directory.error().text);
        return;
    }
    const auto value = platform::propertyValueFromJSON(dictionary);
    const auto bytes = platform::writeBinaryPropertyList(value.value_or(platform::PropertyDictionary()));
    if (!bytes) {
        bagLog().log("Error writing bag to persistent cache: {}.", bytes.error().text);
        return;
    }
    if (const auto written = (*directory)->replace(fileName, *bytes); !written) {
        bagLog().log("Could not write to {}/{}", (*directory)->path(), fileName);
        bagLog()
            .as(platform::LogEvent::writeFailed,
                {{"ORVEX_FILE", pathOf(**directory)}, {"ORVEX_REASON", written.error().text}})
            .error("{}", written.error().text);
    }
}

}  // namespace orvex
