#pragma once

#include <chrono>
#include <expected>
#include <memory>
#include <string>

#include "platform/bus.h"

namespace orvex::tool {

/// The tool's side of the bus: calls that wait for their answer.
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

    /// Makes this a connection of the client interface, under that identifier and user agent.
    [[nodiscard]] std::expected<void, platform::BusError> configure(const std::string& identifier,
                                                                    const std::string& userAgent);

private:
    explicit DaemonClient(std::unique_ptr<platform::Bus> bus) : _bus(std::move(bus)) {}

    std::unique_ptr<platform::Bus> _bus;
};

}  // namespace orvex::tool
