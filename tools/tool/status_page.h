#pragma once

#include <boost/json/fwd.hpp>
#include <string>

namespace orvex::tool {

struct StatusPageOptions {
    double now = 0;  ///< seconds since 1970
    /// What the last look saw; null: nothing to compare with. Of another run of the daemon it counts for nothing.
    const boost::json::object* before = nullptr;
};

/// What `Diagnostics.Status` answers, for people. What happened and what was dropped since the daemon's start are told
/// in the vocabulary's words, with how much of it is new since the last look.
[[nodiscard]] std::string statusPage(const boost::json::object& status, const StatusPageOptions& options);
[[nodiscard]] std::string statusPage(const boost::json::value& status);  ///< as of now
[[nodiscard]] std::string notRunningPage();

}  // namespace orvex::tool
