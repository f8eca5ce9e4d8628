#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orvex::platform {
class Counters;
struct InstalledApplication;
}  // namespace orvex::platform

/// The whitelist of applications, a resource. A JSON object with "compression" "RLE", "encoding" "bitmap" and "apps":
/// the text of another JSON object, with "version", a text of hexadecimal digits, and "apps": for each application by
/// identifier an array whose last element, an object, has its number "encoding_id".
namespace orvex {

/// Gives the ids of the installed applications among these, ascending.
using InstalledIds = std::function<std::vector<std::uint32_t>(const boost::json::object& apps)>;

/// The signature that the document asks for; none where it is no such document, or nothing of it is installed.
[[nodiscard]] std::optional<std::string> processWhitelist(std::string_view document, const InstalledIds& installedIds);

/// Those that have a version and an id in `apps`, ascending. An id that no signature has room for is left out, logged
/// and counted.
[[nodiscard]] std::vector<std::uint32_t> findWhitelistedApplications(
    const boost::json::object& apps, std::span<const platform::InstalledApplication> installed,
    platform::Counters& counters);

}  // namespace orvex
