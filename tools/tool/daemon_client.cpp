#include "tools/tool/daemon_client.h"

#include <future>

#include "core/constants.h"
#include "platform/linux/sd_bus.h"

namespace orvex::tool {

bool meansNoDaemon(const platform::BusError& error) {
    return error.name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
           error.name == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
           error.name.starts_with("org.freedesktop.DBus.Error.Spawn");
}

platform::Result<DaemonClient> DaemonClient::connect(const std::string& busAddress) {
    auto bus = platform::SdBus::create({.address = busAddress});
    if (!bus) return std::unexpected(bus.error());
    return DaemonClient(*std::move(bus));
}

std::expected<platform::BusArguments, platform::BusError> DaemonClient::call(std::string_view interface,
                                                                             std::string_view member,
                                                                             std::string_view signature,
                                                                             platform::BusArguments arguments) {
    using Answer = std::expected<platform::BusArguments, platform::BusError>;
    // Shared with the completion: it may still come when nobody waits any more.
    auto answered = std::make_shared<std::promise<Answer>>();
    auto answer = answered->get_future();
    send(interface, member, signature, std::move(arguments),
         [answered](Answer result) { answered->set_value(std::move(result)); });
    return answer.get();
}

void DaemonClient::send(std::string_view interface, std::string_view member, std::string_view signature,
                        platform::BusArguments arguments, platform::BusCallCompletion completion) {
    _bus->call(std::string(kORXBusName), std::string(kORXObjectPath), std::string(interface), std::string(member),
               std::string(signature), std::move(arguments), patience, std::move(completion));
}

std::expected<void, platform::BusError> DaemonClient::configure(const std::string& identifier,
                                                                const std::string& userAgent) {
    auto answer = call(kORXDaemonInterface, "Configure", "a{sv}", configuration(identifier, userAgent));
    if (!answer) return std::unexpected(answer.error());
    return {};
}

platform::BusArguments DaemonClient::configuration(const std::string& identifier, const std::string& userAgent) {
    platform::BusDictionary configuration;
    configuration.set("identifier", identifier).set("user_agent", userAgent);
    return {std::move(configuration)};
}

}  // namespace orvex::tool
