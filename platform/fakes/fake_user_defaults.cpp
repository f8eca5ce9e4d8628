#include "platform/fakes/fake_user_defaults.h"

#include <cerrno>
#include <stdexcept>

#include "platform/property_list.h"

namespace orvex::platform {
namespace {

/// As a file keeps it.
Result<PropertyDictionary> asStored(std::string_view key, PropertyValue value) {
    const auto bytes = writeXMLPropertyList(PropertyDictionary{{std::string(key), std::move(value)}});
    if (!bytes) return std::unexpected(bytes.error());
    const auto read = parsePropertyList(*bytes);
    if (!read) return std::unexpected(read.error());
    return *read->as<PropertyDictionary>();
}

}  // namespace

void FakeUserDefaults::registerDefaults(PropertyDictionary values) {
    const MutexLock lock(_mutex);
    _layers.registerValues(std::move(values));
}

void FakeUserDefaults::overrideForThisRun(std::string key, std::string text) {
    const MutexLock lock(_mutex);
    _layers.putOver(std::move(key), std::move(text));
}

std::optional<PropertyValue> FakeUserDefaults::object(std::string_view key) const {
    const MutexLock lock(_mutex);
    return _layers.object(key);
}

std::optional<std::string> FakeUserDefaults::string(std::string_view key) const {
    const MutexLock lock(_mutex);
    return _layers.string(key);
}

Result<void> FakeUserDefaults::setObject(std::string_view key, PropertyValue value) {
    const MutexLock lock(_mutex);
    auto kept = asStored(key, std::move(value));
    if (!kept) return std::unexpected(kept.error());
    if (_failing) return failure(EIO, "the defaults fail, as the test wants");
    kept->insert(_layers.stored().begin(), _layers.stored().end());  // what is there already stays
    _layers.setStored(*std::move(kept));
    return {};
}

Result<void> FakeUserDefaults::removeObject(std::string_view key) {
    const MutexLock lock(_mutex);
    if (_failing) return failure(EIO, "the defaults fail, as the test wants");
    auto values = _layers.stored();
    if (const auto found = values.find(key); found != values.end()) values.erase(found);
    _layers.setStored(std::move(values));
    return {};
}

void FakeUserDefaults::store(std::string_view key, PropertyValue value) {
    if (const auto stored = setObject(key, std::move(value)); !stored) throw std::runtime_error(stored.error().text);
}

void FakeUserDefaults::setFailing(bool failing) {
    const MutexLock lock(_mutex);
    _failing = failing;
}

PropertyDictionary FakeUserDefaults::stored() const {
    const MutexLock lock(_mutex);
    return _layers.stored();
}

}  // namespace orvex::platform
