#include "platform/linux/system_settings.h"

#include <algorithm>
#include <chrono>
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

std::optional<Variables> oneVariable(const char* name, const BusValue* value) {
    const auto* text = value ? value->as<std::string>() : nullptr;
    return text ? std::optional(Variables{{name, *text}}) : std::nullopt;
}

/// A property of a service, and the variables that it stands for; none when the value is of another type.
struct Source {
    const char* service;
    const char* path;
    const char* property;
    bool askedAtStart;  ///< no variable of the environment tells it
    std::optional<Variables> (*variables)(const BusValue* value);
};

constexpr Source sources[] = {
    {"org.freedesktop.locale1", "/org/freedesktop/locale1", "Locale", false, localeVariables},
    {"org.freedesktop.locale1", "/org/freedesktop/locale1", "X11Layout", true,
     [](const BusValue* value) { return oneVariable("XKB_DEFAULT_LAYOUT", value); }},
    {"org.freedesktop.timedate1", "/org/freedesktop/timedate1", "Timezone", false,
     [](const BusValue* value) { return oneVariable("TZ", value); }},
};

constexpr auto propertiesInterface = "org.freedesktop.DBus.Properties";
constexpr std::chrono::seconds callLimit(25);

bool contains(const BusValue& names, std::string_view name) {
    const auto* array = names.as<BusArray>();
    return array && std::ranges::any_of(array->items, [name](const BusValue& item) {
               return item.as<std::string>() && *item.as<std::string>() == name;
           });
}

}  // namespace

SystemSettings::SystemSettings() : _state(std::make_shared<State>()) {}

IcuLocale::Environment SystemSettings::environment() const {
    return [state = _state](const char* name) { return state->variable(name); };
}

void SystemSettings::follow(Bus& systemBus, std::function<void()> changed) {
    for (const auto& source : sources) {
        const auto take = [source, changed, state = _state](const BusValue* value) {
            auto announced = source.variables(value);
            if (!announced) return;
            {
                const MutexLock lock(state->mutex);
                for (auto& [name, text] : *announced) state->variables[name] = std::move(text);
            }
            changed();
        };
        const auto ask = [source, take, &systemBus] {
            systemBus.call(source.service, source.path, propertiesInterface, "Get", "ss",
                           {source.service, source.property}, callLimit,
                           [take](std::expected<BusArguments, BusError> answer) {
                               if (answer && answer->size() == 1) take(&answer->front());
                           });
        };
        systemBus.subscribe(
            source.service, source.path, propertiesInterface, "PropertiesChanged",
            [source, take, ask](const std::string&, const BusArguments& arguments) {
                const auto* interface = arguments.size() == 3 ? arguments[0].as<std::string>() : nullptr;
                const auto* properties = arguments.size() == 3 ? arguments[1].as<BusDictionary>() : nullptr;
                if (!interface || *interface != source.service || !properties) return;
                if (contains(arguments[2], source.property)) return ask();
                take(properties->find(source.property));
            });
        if (source.askedAtStart) ask();
    }
}

}  // namespace orvex::platform
