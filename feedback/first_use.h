#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvex {

class Assembly;
class CXClientSession;

/// The first use of the day: of each client that is followed so, the date when it was last used for the first time of
/// a day is a user default.

/// Under which key, "OrvexFirstUseOfTheDay_" and the client's name; none for an agent that is none of those clients'.
[[nodiscard]] std::optional<std::string> firstUseDefaultsKey(std::string_view agent);

/// Tells the session of `session.agent()` when that was. If it was not today, in the calendar and time zone of the
/// user, it is now: this is stored, on disk when it returns, and counted, "…dailyactiveusers".
void determineFirstUse(Assembly& assembly, CXClientSession& session);

}  // namespace orvex
