#pragma once

#include <boost/json/fwd.hpp>
#include <vector>

#include "core/feedback_records.pb.h"

/// A session of records as it is uploaded. Pure functions, but for what they log and count.
namespace orvex {

class Assembly;

using SessionRecords = std::vector<CXOrvexFeedback>;

/// Of equal times in the order that they had.
void sortByTime(SessionRecords& records);

/// The dictionaries of `records`, which are by time. Each record's "timestamp" is relative to the first that has one,
/// in milliseconds. A record without a dictionary is left out, logged and counted. They are led by what the records
/// used and never announced: missing suggestions, then missing results, if any.
[[nodiscard]] boost::json::array privacyFilteredFeedbacksWithRelativeTimestamp(const Assembly& assembly,
                                                                               const CXClientSession& session,
                                                                               SessionRecords records);

/// The keys "agent", "base_time" (whole seconds since 1970; 0 when times are to be kept back), "fb", "first_use",
/// "previous_session_end_reason", "resource_versions" and "user_guid", in this order. Engagements of pages are screened
/// where a browser had the session. Null: no records; no versions.
[[nodiscard]] boost::json::object feedbacksToSend(const Assembly& assembly, const CXClientSession& session,
                                                  SessionRecords records);

}  // namespace orvex
