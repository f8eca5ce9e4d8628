#pragma once

#include <boost/json/fwd.hpp>
#include <boost/json/storage_ptr.hpp>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/result.h"

/// Reading JSON that others wrote.
namespace orvex {

inline constexpr std::size_t kBagJSONDepth = 64;
inline constexpr std::size_t kReplyJSONDepth = 512;

/// The one value that `text` holds, in memory of its own, or in `storage`'s, which then outlives it. Fails on anything
/// after it and on a nesting deeper than `maxDepth`.
platform::Result<boost::json::value> parseJSON(std::string_view text, std::size_t maxDepth,
                                               boost::json::storage_ptr storage = {});

/// A number of whatever kind; none for anything else and for one that is not finite (1e400 reads as infinity).
[[nodiscard]] std::optional<double> numberFromJSON(const boost::json::value& json);

/// The number's decimal text: integers exactly, others as `platform::shortestDecimal`. None where there is no number.
[[nodiscard]] std::optional<std::string> decimalFromJSON(const boost::json::value& json);

/// The value as text on one line, numbers as `decimalFromJSON`; what is no finite number is null.
[[nodiscard]] std::string compactJSON(const boost::json::value& json);

/// The member of that name when it is there and a string, else none.
[[nodiscard]] std::optional<std::string> stringMember(const boost::json::object& object, std::string_view name);

}  // namespace orvex
