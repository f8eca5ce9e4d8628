#include "platform/linux/system_conditions.h"

#include <chrono>
#include <string>

#include "platform/log.h"

namespace orvex::platform {
namespace {

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";
constexpr std::chrono::seconds answerTime{25};

// https://networkmanager.dev/docs/api/latest/nm-dbus-types.html
namespace metered {
constexpr std::uint32_t yes = 1;
constexpr std::uint32_t guessedYes = 3;
}  // namespace metered
namespace connectivity {
constexpr std::uint32_t none = 1;
constexpr std::uint32_t portal = 2;
}  // namespace connectivity

void readNetwork(const BusDictionary& properties, Conditions& conditions) {
    const auto number = [&properties](std::string_view name) {
        const auto* value = properties.find(name);
        return value ? value->as<std::uint32_t>() : nullptr;
    };
    if (const auto* value = number("Metered"))
        conditions.isMetered = *value == metered::yes || *value == metered::guessedYes;
    if (const auto* value = number("Connectivity"))
        conditions.isConnected = *value != connectivity::none && *value != connectivity::portal;
}

void readPower(const BusDictionary& properties, Conditions& conditions) {
    const auto* onBattery = properties.find("OnBattery");
    if (const auto* value = onBattery ? onBattery->as<bool>() : nullptr) conditions.isOnMains = !*value;
}

struct Service {
    std::string name;  ///< of the bus name, and of the interface
    std::string path;
    void (*read)(const BusDictionary& properties, Conditions& conditions);
};

void follow(Bus& bus, DeviceConditions& conditions, const Service& service) {
    const auto tell = [&conditions, read = service.read](const BusValue* value) {
        const auto* properties = value ? value->as<BusDictionary>() : nullptr;
        if (properties) conditions.update([&](Conditions& now) { read(*properties, now); });
    };
    bus.subscribe(service.name, service.path, propertiesInterface, "PropertiesChanged",
                  [tell, name = service.name](const std::string&, const BusArguments& arguments) {
                      const auto* interface = arguments.size() == 3 ? arguments[0].as<std::string>() : nullptr;
                      if (interface && *interface == name) tell(&arguments[1]);
                  });
    bus.call(service.name, service.path, propertiesInterface, "GetAll", "s", {service.name}, answerTime,
             [tell, name = service.name](std::expected<BusArguments, BusError> answer) {
                 if (!answer)
                     defaultLogger().debug("{} does not tell: {}", name, answer.error().message);
                 else if (answer->size() == 1)
                     tell(&answer->front());
             });
}

}  // namespace

void followSystemConditions(Bus& systemBus, DeviceConditions& conditions) {
    follow(systemBus, conditions, {"org.freedesktop.NetworkManager", "/org/freedesktop/NetworkManager", readNetwork});
    follow(systemBus, conditions, {"org.freedesktop.UPower", "/org/freedesktop/UPower", readPower});
}

}  // namespace orvex::platform
