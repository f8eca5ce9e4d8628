#include "tools/tool/shown_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <cmath>

#include "core/json.h"
#include "platform/text.h"

namespace orvex::tool {
namespace {

constexpr std::size_t maxTextBytes = 400;  ///< of one text from elsewhere

std::int64_t whole(double number) { return static_cast<std::int64_t>(std::clamp(number, -1e15, 1e15)); }

}  // namespace

std::string shown(std::string_view text) { return platform::escaped(text, maxTextBytes); }

std::string shownMember(const boost::json::object& object, std::string_view name) {
    return shown(stringMember(object, name).value_or(""));
}

std::string shownValue(const boost::json::value& value) {
    if (value.is_string()) return shown(value.get_string());
    if (const auto number = decimalFromJSON(value)) return *number;
    return shown(boost::json::serialize(value));
}

const boost::json::array* listMember(const boost::json::object& object, std::string_view name) {
    const auto* member = object.if_contains(name);
    return member != nullptr ? member->if_array() : nullptr;
}

double numberMember(const boost::json::object& object, std::string_view name) {
    const auto* member = object.if_contains(name);
    return member != nullptr ? numberFromJSON(*member).value_or(0) : 0;
}

bool isTrue(const boost::json::object& object, std::string_view name) {
    const auto* member = object.if_contains(name);
    return member != nullptr && member->is_bool() && member->get_bool();
}

double secondsSince1970Now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string age(double seconds) {
    const auto all = whole(std::abs(seconds));
    if (all < 120) return fmt::format("{} s", all);
    if (all < 7200) return fmt::format("{} min", all / 60);
    if (all < 48 * 3600) return fmt::format("{} h {} min", all / 3600, all / 60 % 60);
    return fmt::format("{} days", all / 86400);
}

std::string size(double bytes) {
    if (bytes < 1024) return countOf(bytes, "byte");
    if (bytes < 1024 * 1024) return fmt::format("{:.1f} KiB", bytes / 1024);
    return fmt::format("{:.1f} MiB", bytes / (1024 * 1024));
}

std::string countOf(double number, std::string_view one) {
    return fmt::format("{} {}{}", whole(number), one, whole(number) == 1 ? "" : "s");
}

}  // namespace orvex::tool
