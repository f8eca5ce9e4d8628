#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "tools/search_provider/results.h"

/// What feedback is told of the overview: see docs/feedback-records.md. Pure functions, but for the records' UUIDs.
namespace orvex::search_provider {

/// One call of ReportFeedbackPayloadData.
struct Report {
    std::string payload;
    std::uint64_t queryId = 0;
};

// Each report takes `now` as the time at which it happened.

/// `results` were found, in that order. Suggestions without a page have no such record, here as below.
[[nodiscard]] std::vector<Report> found(const std::vector<Result>& results, platform::MonotonicTime now);
/// They came when the shell had its answer already.
[[nodiscard]] std::vector<Report> foundTooLate(const std::vector<Result>& results, platform::MonotonicTime now);
/// They are about to be shown; suggestions have a record of their own.
[[nodiscard]] std::vector<Report> shown(const std::vector<Result>& results, platform::MonotonicTime now);
/// The user picked `result` for `query`.
[[nodiscard]] Report picked(const Result& result, const std::string& query, platform::MonotonicTime now);

}  // namespace orvex::search_provider
