#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/bus.h"
#include "platform/linux/icu_locale.h"

namespace orvex::platform {

/// The system's locale and time zone as their services (locale1, timedate1) announce them while we run. What was in the
/// environment at the start holds until then: from the first announcement on it counts alone, for the variables that it
/// is about. Without these services nothing changes.
///
/// Threading: callable from any thread. `changed` comes on the bus thread.
class SystemSettings {
public:
    SystemSettings();
    /// The process's environment, as changed by what was announced.
    [[nodiscard]] IcuLocale::Environment environment() const;
    void follow(Bus& systemBus, std::function<void()> changed);

private:
    struct State;

    const std::shared_ptr<State> _state;
};

}  // namespace orvex::platform
