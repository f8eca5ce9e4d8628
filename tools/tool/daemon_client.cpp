#include "tools/tool/daemon_client.h"

#include <fmt/format.h>

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

#include "tools/tool/bus_json.h"
#include "tools/tool/pages.h"

namespace orvex::tool {

using client::Client;
using client::Error;

std::expected<Client, ExitStatus> connect(const Options& options) {
    auto client = Client::connect(
        {.identifier = options.identifier, .userAgent = options.userAgent, .address = options.busAddress});
    if (client) return *std::move(client);
    return std::unexpected(tell(options, client.error()));
}

std::expected<Client, ExitStatus> connectAsClient(const Options& options) {
    auto client = connect(options);
    if (!client) return client;
    const auto configured = resultOf<void>(*client, [&](auto done) { client->configure(std::move(done)); });
    if (!configured) return std::unexpected(tell(options, configured.error()));
    return client;
}

ExitStatus tell(const Options& options, const Error& error) {
    switch (error.kind) {
        case Error::Kind::noBus:
            fmt::print(stderr, "orvex_tool: {}\n", error.reason);
            return ExitStatus::noDaemon;
        case Error::Kind::noDaemon:
            fmt::print(stderr, "orvex_tool: no orvexd on the bus ({})\n", error.reason);
            return ExitStatus::noDaemon;
        case Error::Kind::failed:
            if (options.json) {
                fmt::print("{}\n", boost::json::serialize(boost::json::object{{"error", jsonFromError(error)}}));
            } else {
                fmt::print(stderr, "orvex_tool: {}\n", errorText(jsonFromError(error)));
            }
            return ExitStatus::refused;
        default:
            fmt::print(stderr, "orvex_tool: {}{}\n", error.reason,
                       error.domain.empty() ? "" : fmt::format(" ({})", error.domain));
            return ExitStatus::refused;
    }
}

std::expected<client::List, Error> call(Client& client, std::string_view interface, const char* member,
                                        const client::List& arguments) {
    return resultOf<client::List>(client, [&](auto done) {
        client.call({.interface = std::string(interface), .member = member}, arguments, std::move(done));
    });
}

}  // namespace orvex::tool
