#include "platform/linux/user_defaults.h"

#include <cerrno>

#include "platform/log.h"
#include "platform/log_events.h"
#include "platform/property_list.h"

// Memory must never go back to what the file held before: a reader that was overtaken by a writer finds that another
// generation of values was put in place meanwhile, and reads again. Writers need no such care, since each holds the
// file lock from its reading until its values are in place.

namespace orvex::platform {
namespace {

constexpr std::string_view fileName = "defaults.plist";
constexpr std::string_view lockName = "defaults.plist.lock";
constexpr std::chrono::seconds lockLimit(3);

/// The dictionary in the file, an empty one when there is no file. `broken` when what stands there is no such list.
struct Stored {
    Result<PropertyDictionary> values;
    bool broken = false;
};

Stored readStored(const Directory& directory) {
    const auto bytes = directory.read(fileName, maxPropertyListBytes);
    if (!bytes && bytes.error().code == ENOENT) return {.values = {}};
    if (!bytes) return {.values = std::unexpected(bytes.error()), .broken = saysBrokenFile(bytes.error())};
    auto list = parsePropertyList(*bytes);
    if (!list) return {.values = std::unexpected(list.error()), .broken = true};
    const auto* dictionary = list->as<PropertyDictionary>();
    if (!dictionary) return {.values = failure(0, "the property list is no dictionary"), .broken = true};
    return {.values = *dictionary};
}

/// The same for one who holds the file's lock: a broken file goes out of the way.
Result<PropertyDictionary> readLocked(Directory& directory) {
    auto stored = readStored(directory);
    if (!stored.broken) return std::move(stored.values);
    const std::string& why = stored.values.error().text;
    defaultLogger()
        .as(LogEvent::settingsBroken,
            {{"ORVEX_FILE", fmt::format("{}/{}", directory.path(), fileName)}, {"ORVEX_REASON", why}})
        .error("{}/{} is broken and set aside: {}", directory.path(), fileName, why);
    if (!setAside(directory, fileName)) return std::move(stored.values);
    return PropertyDictionary();
}

Result<PropertyDictionary> readForMemory(LinuxDirectory& directory) {
    auto stored = readStored(directory);
    if (!stored.broken) return std::move(stored.values);
    // Only under the lock: a writer may just have put a good file in its place.
    const auto lock = directory.lock(lockName, lockLimit);
    if (!lock) return std::unexpected(lock.error());
    return readLocked(directory);
}

}  // namespace

LinuxUserDefaults::LinuxUserDefaults(LinuxFileManager& files, FileWatcher& watcher, std::string domain)
    : _files(files),
      _domain(std::move(domain)) {
    if (auto path = _files.configurationPath(_domain))
        _watch = watcher.watch(std::move(*path), std::string(fileName), [this] { _reload(); });
    _reload();
}

void LinuxUserDefaults::registerDefaults(PropertyDictionary values) {
    const MutexLock lock(_mutex);
    _layers.registerValues(std::move(values));
}

void LinuxUserDefaults::overrideForThisRun(std::string key, std::string text) {
    const MutexLock lock(_mutex);
    _layers.putOver(std::move(key), std::move(text));
}

std::optional<PropertyValue> LinuxUserDefaults::object(std::string_view key) const {
    const MutexLock lock(_mutex);
    return _layers.object(key);
}

std::optional<std::string> LinuxUserDefaults::string(std::string_view key) const {
    const MutexLock lock(_mutex);
    return _layers.string(key);
}

Result<void> LinuxUserDefaults::setObject(std::string_view key, PropertyValue value) {
    return _change(key, std::move(value));
}

Result<void> LinuxUserDefaults::removeObject(std::string_view key) { return _change(key, std::nullopt); }

PropertyDictionary LinuxUserDefaults::stored() const {
    const MutexLock lock(_mutex);
    return _layers.stored();
}

std::uint64_t LinuxUserDefaults::_generation() const {
    const MutexLock lock(_mutex);
    return _installed;
}

void LinuxUserDefaults::_reload() {
    while (true) {
        const auto generation = _generation();
        const auto directory = _files.existingConfigurationDirectory(_domain);
        auto values = directory ? readForMemory(**directory) : std::unexpected(directory.error());
        if (!values && values.error().code == ENOENT) values = PropertyDictionary();
        if (!values) return defaultLogger().error("user defaults stay as they were: {}", values.error().text);
        const MutexLock lock(_mutex);
        if (generation != _installed) continue;
        _layers.setStored(std::move(*values));
        ++_installed;
        return;
    }
}

Result<void> LinuxUserDefaults::_change(std::string_view key, std::optional<PropertyValue> value) {
    const auto directory = _files.configurationDirectory(_domain);
    if (!directory) return std::unexpected(directory.error());
    const auto fileLock = (*directory)->lock(lockName, lockLimit);
    if (!fileLock) return std::unexpected(fileLock.error());
    auto values = readLocked(**directory);
    if (!values) return std::unexpected(values.error());

    if (value) {
        values->insert_or_assign(std::string(key), std::move(*value));
    } else if (const auto found = values->find(key); found != values->end()) {
        values->erase(found);
    } else {
        return {};
    }
    const auto bytes = writeXMLPropertyList(*values);
    if (!bytes) return std::unexpected(bytes.error());
    if (const auto replaced = (*directory)->replace(fileName, *bytes); !replaced) return replaced;
    auto kept = parsePropertyList(*bytes);  // dates have lost their fractions
    if (!kept) return std::unexpected(kept.error());
    const MutexLock lock(_mutex);
    _layers.setStored(*kept->as<PropertyDictionary>());
    ++_installed;
    return {};
}

}  // namespace orvex::platform
