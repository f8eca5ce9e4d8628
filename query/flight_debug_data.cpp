#include "query/flight_debug_data.h"

#include <boost/json.hpp>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "core/json.h"
#include "daemon/orvex_logging.h"
#include "platform/result.h"
#include "platform/text.h"

namespace orvex {
namespace {

constexpr std::uintmax_t maxFileBytes = std::uintmax_t{8} << 20;

const platform::Logger& searchLog() { return OrvexLogForCategory(OrvexLoggingCategory::search); }

platform::Result<std::string> loadText(const std::string& location) {
    constexpr std::string_view scheme = "file://";
    if (!location.starts_with(scheme)) return platform::failure(0, "not a file: URL");
    const std::filesystem::path path = location.substr(scheme.size());
    std::error_code error;
    // A device or a pipe would block.
    if (!std::filesystem::is_regular_file(path, error)) return platform::failure(error.value(), "no such file");
    const auto size = std::filesystem::file_size(path, error);
    if (error || size > maxFileBytes) return platform::failure(error.value(), "more than 8 MiB");
    std::ifstream file(path, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(file), {});
    if (!file) return platform::failure(0, "cannot be read");
    if (!platform::isValidUTF8(text)) return platform::failure(0, "not UTF-8");
    return text;
}

boost::json::array loadFlightDebugData(const std::string& location) {
    const auto text = loadText(location);
    if (!text) {
        searchLog().error("Failed to load flight test data. Error: {}", text.error().text);
        return {};
    }
    auto data = parseJSON(*text, kReplyJSONDepth);
    if (data && data->is_array()) return std::move(data->get_array());
    searchLog().error("Failed to parse flight test data json. Error: {}", data ? "not a list" : data.error().text);
    return {};
}

/// Carriers are texts, and numbers are either.
bool says(const boost::json::object& flight, std::string_view name, std::string_view expected) {
    const auto* member = flight.if_contains(name);
    if (member == nullptr) return false;
    if (const auto* text = member->if_string()) return *text == expected;
    return decimalFromJSON(*member) == expected;
}

}  // namespace

std::string debugFlightAnswer(const std::string& location, std::string_view flightQuery) {
    boost::json::array matches;
    const auto hyphen = flightQuery.find('-');
    if (hyphen != std::string_view::npos && flightQuery.find('-', hyphen + 1) == std::string_view::npos) {
        for (auto& entry : loadFlightDebugData(location)) {
            const auto* flight = entry.if_object();
            if (flight != nullptr && says(*flight, "carrier_code", flightQuery.substr(0, hyphen)) &&
                says(*flight, "flight_number", flightQuery.substr(hyphen + 1)))
                matches.push_back(std::move(entry));
        }
    }
    return boost::json::serialize(matches);
}

}  // namespace orvex
