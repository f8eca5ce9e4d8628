#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "core/orx_request.h"
#include "platform/bus_value.h"

/// Between the dictionaries of the bus and the daemon's own values. Pure functions.
///
/// Reading trusts nothing: an entry of a wrong type, a number that is not finite, text that is not UTF-8 and an unknown
/// kind are refused with a message that names the entry. Unknown entries are ignored.
namespace orvex {

/// What to tell the sender: the message of an InvalidArgs error.
struct BadEntry {
    std::string message;
};

std::expected<ORXAnyRequest, BadEntry> requestFromBus(std::string_view kind, const platform::BusDictionary& request);

/// Absent entries read as empty; whether they may be is the connection's business.
std::expected<ORXSessionConfiguration, BadEntry> configurationFromBus(const platform::BusDictionary& configuration);

platform::BusDictionary busError(const std::optional<ORXError>& error);
platform::BusDictionary busReply(const std::optional<ORXReply>& reply);

}  // namespace orvex
