#pragma once

#include <chrono>
#include <expected>
#include <memory>
#include <string>

#include "platform/bus.h"

namespace orvex::tool {

/// Whether the call failed because nobody has the daemon's name.
[[nodiscard]] bool meansNoDaemon(const platform::BusError& error);

/// The tool's side of the bus: calls that wait for their answer, and calls that do not.
/// Threading: one thread, the tool's own.
class DaemonClient {
public:
    static constexpr std::chrono::seconds patience{90};  ///< longer than the daemon takes for anything

    /// Empty address: the user's session bus.
    static platform::Result<DaemonClient> connect(const std::string& busAddress);

    /// `signature` is that of `arguments`.
    [[nodiscard]] std::expected<platform::BusArguments, platform::BusError> call(std::string_view interface,
                                                                                 std::string_view member,
                                                                                 std::string_view signature,
                                                                                 platform::BusArguments arguments);

    /// As `call`, without waiting: `completion` comes once, on the bus thread, unless this is destroyed first.
    void send(std::string_view interface, std::string_view member, std::string_view signature,
              platform::BusArguments arguments, platform::BusCallCompletion completion);

    /// Makes this a connection of the client interface, under that identifier and user agent.
    [[nodiscard]] std::expected<void, platform::BusError> configure(const std::string& identifier,
                                                                    const std::string& userAgent);
    [[nodiscard]] static platform::BusArguments configuration(const std::string& identifier,
                                                              const std::string& userAgent);

    [[nodiscard]] platform::Bus& bus() { return *_bus; }

private:
    explicit DaemonClient(std::unique_ptr<platform::Bus> bus) : _bus(std::move(bus)) {}

    std::unique_ptr<platform::Bus> _bus;
};

}  // namespace orvex::tool
