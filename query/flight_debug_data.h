#pragma once

#include <string>
#include <string_view>

namespace orvex {

/// What a developer of a flight display gets instead of the server's answer: of the JSON list at `location`, a file:
/// URL whose path is taken as written, the entries whose "carrier_code" and "flight_number" are the two parts of
/// `flightQuery`, "XX-123". As JSON; an empty list for none, or when the file cannot be read, which is logged.
/// Reads the file on the calling thread.
[[nodiscard]] std::string debugFlightAnswer(const std::string& location, std::string_view flightQuery);

}  // namespace orvex
