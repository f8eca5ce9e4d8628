#pragma once

#include <boost/json/fwd.hpp>
#include <string>
#include <string_view>

#include "platform/bus_value.h"
#include "platform/result.h"

namespace orvex::tool {

/// A bus value as JSON, for people and scripts: byte arrays become text where they are UTF-8 (a JSON text becomes what
/// it says), else base64.
boost::json::value jsonFromBus(const platform::BusValue& value);

/// The entry of a request dictionary that `text` means, by the type that the entry of that name has. The failure's text
/// says what was expected. A structured entry is read as JSON: query items as [["name", "value"], …], a suggestion as
/// an object, suggestions as a list of them.
platform::Result<platform::BusValue> requestEntry(std::string_view name, const std::string& text);

}  // namespace orvex::tool
