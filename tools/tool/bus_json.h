#pragma once

#include <boost/json/fwd.hpp>
#include <string>
#include <string_view>

#include "client/orvex/types.h"
#include "platform/result.h"

namespace orvex::tool {

/// A bus value as JSON, for people and scripts: byte arrays become text where they are UTF-8 (a JSON text becomes what
/// it says), else base64.
boost::json::value jsonFromValue(const client::Value& value);

/// A reply's entries, with the names that they have on the bus; empty for a reply that is nothing.
boost::json::object jsonFromReply(const client::Reply& reply);
boost::json::object jsonFromError(const client::Error& error);

/// Sets the entry of that name, as it is called on the bus, to what `text` means. The failure's text says what was
/// expected. A structured entry is read as JSON: query items as [["name", "value"], …], a suggestion as an object,
/// suggestions as a list of them.
platform::Result<void> setRequestEntry(client::Request& request, std::string_view name, const std::string& text);

}  // namespace orvex::tool
