#pragma once

#include <boost/json/fwd.hpp>
#include <optional>

namespace orvex {

class Assembly;

/// The bag on disk: the raw dictionary, the bag controller's own keys included, as a binary property list "bag.plist"
/// in the caches directory, mode 0600. What JSON has and a property list has not, a null, is left out.

/// None when there is no such file, when it cannot be read, or when the assembly's disk cache is off. A file that is no
/// property list, or holds no dictionary, is set aside, and so is what is no file (a link, a directory). Failures are
/// logged.
std::optional<boost::json::object> diskCachedBagDictionary(const Assembly& assembly);

/// Durable on return, or the old file stays: a failure is logged.
void writeBagDictionary(const Assembly& assembly, const boost::json::object& dictionary);

}  // namespace orvex
