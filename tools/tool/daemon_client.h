#pragma once

#include <expected>
#include <optional>
#include <utility>

#include "client/orvex/client.h"
#include "tools/tool/commands.h"

namespace orvex::tool {

/// A connection that the daemon does not know of yet; the error is told.
std::expected<client::Client, ExitStatus> connect(const Options& options);

/// Connected, and known to the daemon as a client; the error is told.
std::expected<client::Client, ExitStatus> connectAsClient(const Options& options);

/// Tells the error: on standard error, or as the JSON document when it is the daemon's own.
ExitStatus tell(const Options& options, const client::Error& error);

/// Waits for the result of the call that `start` makes with the callback that it is given.
template <class T, class Start>
std::expected<T, client::Error> resultOf(client::Client& client, Start start) {
    std::optional<std::expected<T, client::Error>> result;
    start(client::Client::Callback<T>([&result](std::expected<T, client::Error> came) { result = std::move(came); }));
    const auto ran = client.runUntil([&result] { return result.has_value(); });
    if (!result) return std::unexpected(ran.error());
    return *std::move(result);
}

/// A method of an interface that no client's connection is needed for.
std::expected<client::List, client::Error> call(client::Client& client, std::string_view interface, const char* member,
                                                const client::List& arguments = {});

}  // namespace orvex::tool
