#pragma once

#include "platform/defaults_layers.h"
#include "platform/thread_annotations.h"
#include "platform/user_defaults.h"

namespace orvex::platform {

/// User defaults in memory. What can be stored is what the real ones can store, so a test finds a value that would be
/// lost in a file.
class FakeUserDefaults final : public UserDefaults {
public:
    void registerDefaults(PropertyDictionary values) override;
    void overrideForThisRun(std::string key, std::string text) override;
    [[nodiscard]] std::optional<PropertyValue> object(std::string_view key) const override;
    [[nodiscard]] std::optional<std::string> string(std::string_view key) const override;
    [[nodiscard]] Result<void> setObject(std::string_view key, PropertyValue value) override;
    [[nodiscard]] Result<void> removeObject(std::string_view key) override;

    /// `setObject` for a test that arranges its world.
    void store(std::string_view key, PropertyValue value);
    /// Every later change fails with EIO, until it is set back.
    void setFailing(bool failing);
    /// What is stored, without what is registered or put over.
    [[nodiscard]] PropertyDictionary stored() const;

private:
    mutable Mutex _mutex;
    DefaultsLayers _layers ORX_GUARDED_BY(_mutex);
    bool _failing ORX_GUARDED_BY(_mutex) = false;
};

}  // namespace orvex::platform
