#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <string>
#include <string_view>

namespace orvex::tool {

// Parts of the tool's pages. Texts come from elsewhere and are escaped, and cut, for a terminal.

[[nodiscard]] std::string shown(std::string_view text);
[[nodiscard]] std::string shownMember(const boost::json::object& object, std::string_view name);  ///< absent: empty
[[nodiscard]] std::string shownValue(const boost::json::value& value);

[[nodiscard]] const boost::json::array* listMember(const boost::json::object& object, std::string_view name);
[[nodiscard]] double numberMember(const boost::json::object& object, std::string_view name);  ///< absent: 0
[[nodiscard]] bool isTrue(const boost::json::object& object, std::string_view name);

[[nodiscard]] double secondsSince1970Now();
[[nodiscard]] std::string age(double seconds);  ///< "40 s", "12 min", "3 h 5 min", whatever the sign
[[nodiscard]] std::string size(double bytes);   ///< "512 bytes", "1.5 KiB", "20.0 MiB"
/// "1 file", "2 files"; `one` gets an "s" for the others.
[[nodiscard]] std::string countOf(double number, std::string_view one);

}  // namespace orvex::tool
