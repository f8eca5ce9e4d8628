#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/bus.h"
#include "platform/linux/icu_locale.h"

namespace orvex::platform {

/// The system's locale, keyboard and time zone as their services (locale1, timedate1) announce them while we run, with
/// the value or only by name, which is then asked for. What was in the environment at the start holds until then: from
/// the first announcement on it counts alone, for the variables that it is about. The keyboard is asked for at the
/// start, since sessions do not have it in their environment. Without these services nothing changes.
///
/// Threading: callable from any thread. `changed` comes on the bus thread. The bus outlives what it was told to follow.
class SystemSettings {
public:
    SystemSettings();
    /// The process's environment, as changed by what was announced.
    [[nodiscard]] IcuLocale::Environment environment() const;
    /// Waits for nothing.
    void follow(Bus& systemBus, std::function<void()> changed);

private:
    struct State;

    const std::shared_ptr<State> _state;
};

}  // namespace orvex::platform
