#pragma once

#include <boost/json/fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "platform/result.h"

namespace orvex::tool {

/// A `CXFeedbackPayload` in protobuf's JSON form, encoded as `ReportFeedbackPayloadData` takes it. A payload that gives
/// no type gets that of its record. The failure's text says what in it is wrong.
platform::Result<std::string> payloadFromJSON(std::string_view text);

/// The name of a payload's type.
std::string payloadTypeName(std::string_view payload);

/// The records that `Feedback` answers: each one's dictionary, with "user_agent" and "user_guid", and as "timestamp"
/// its own, in milliseconds. One that cannot be read is null.
boost::json::array recordsAsJSON(const std::vector<std::string>& records);

/// Of such records, one a line: time since the first, type, and the rest as JSON.
std::string recordsPage(const boost::json::array& records);

}  // namespace orvex::tool
