#include "platform/fakes/fake_user_defaults.h"

#include <cerrno>
#include <cmath>
#include <stdexcept>

#include "platform/text.h"

namespace orvex::platform {
namespace {

bool storable(const std::string& text) { return !text.contains('\0') && isValidUTF8(text); }

/// As the XML form keeps it: whole seconds, no text with a zero byte, no number that is not finite.
std::optional<PropertyValue> asStored(const PropertyValue& value) {
    if (const auto* date = value.as<WallTime>()) return WallTime(std::chrono::floor<std::chrono::seconds>(*date));
    if (const auto* number = value.as<double>(); number && !std::isfinite(*number)) return std::nullopt;
    if (const auto* text = value.as<std::string>(); text && !storable(*text)) return std::nullopt;
    if (const auto* array = value.as<PropertyArray>()) {
        PropertyArray kept;
        for (const auto& item : *array) {
            auto element = asStored(item);
            if (!element) return std::nullopt;
            kept.push_back(std::move(*element));
        }
        return kept;
    }
    if (const auto* dictionary = value.as<PropertyDictionary>()) {
        PropertyDictionary kept;
        for (const auto& [key, item] : *dictionary) {
            auto element = asStored(item);
            if (!element || !storable(key)) return std::nullopt;
            kept.emplace(key, std::move(*element));
        }
        return kept;
    }
    return value;
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
    auto kept = asStored(value);
    if (!kept || !storable(std::string(key))) return failure(EINVAL, "a value that no property list can hold");
    if (_failing) return failure(EIO, "the defaults fail, as the test wants");
    auto values = _layers.stored();
    values.insert_or_assign(std::string(key), std::move(*kept));
    _layers.setStored(std::move(values));
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
