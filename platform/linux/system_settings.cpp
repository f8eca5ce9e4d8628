#include "platform/linux/system_settings.h"

#include <cstdlib>
#include <string_view>

#include "platform/thread_annotations.h"

namespace orvex::platform {

struct SystemSettings::State {
    mutable Mutex mutex;
    std::map<std::string, std::string, std::less<>> variables ORX_GUARDED_BY(mutex);  ///< announced

    std::string variable(const char* name) const {
        {
            const MutexLock lock(mutex);
            if (const auto found = variables.find(name); found != variables.end()) return found->second;
        }
        const char* value = std::getenv(name);
        return value ? value : "";
    }
};

namespace {

using Variables = std::map<std::string, std::string, std::less<>>;

/// "LANG=de_DE.UTF-8" and so on. Those that are not announced are not set.
std::optional<Variables> localeVariables(const BusValue* locale) {
    const auto* assignments = locale ? locale->as<BusArray>() : nullptr;
    if (!assignments) return std::nullopt;
    Variables variables = {{"LANG", ""}, {"LC_ALL", ""}, {"LC_MESSAGES", ""}, {"LANGUAGE", ""}};
    for (const auto& item : assignments->items) {
        const std::string_view assignment = item.as<std::string>() ? *item.as<std::string>() : std::string_view();
        const auto equals = assignment.find('=');
        const auto found = variables.find(assignment.substr(0, equals));
        if (equals != std::string_view::npos && found != variables.end()) found->second = assignment.substr(equals + 1);
    }
    return variables;
}

std::optional<Variables> timeZoneVariables(const BusValue* timeZone) {
    const auto* name = timeZone ? timeZone->as<std::string>() : nullptr;
    return name ? std::optional(Variables{{"TZ", *name}}) : std::nullopt;
}

}  // namespace

SystemSettings::SystemSettings() : _state(std::make_shared<State>()) {}

IcuLocale::Environment SystemSettings::environment() const {
    return [state = _state](const char* name) { return state->variable(name); };
}

void SystemSettings::follow(Bus& systemBus, std::function<void()> changed) {
    struct Source {
        std::string service, path;
        std::string_view property;
        std::optional<Variables> (*variables)(const BusValue*);
    };
    const Source sources[] = {
        {"org.freedesktop.locale1", "/org/freedesktop/locale1", "Locale", localeVariables},
        {"org.freedesktop.timedate1", "/org/freedesktop/timedate1", "Timezone", timeZoneVariables},
    };
    for (const auto& source : sources) {
        systemBus.subscribe(
            source.service, source.path, "org.freedesktop.DBus.Properties", "PropertiesChanged",
            [source, changed, state = _state](const std::string&, const BusArguments& arguments) {
                const auto* properties = arguments.size() == 3 ? arguments[1].as<BusDictionary>() : nullptr;
                auto announced = properties ? source.variables(properties->find(source.property)) : std::nullopt;
                if (!announced) return;
                {
                    const MutexLock lock(state->mutex);
                    for (auto& [name, value] : *announced) state->variables[name] = std::move(value);
                }
                changed();
            });
    }
}

}  // namespace orvex::platform
