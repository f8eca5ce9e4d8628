#pragma once

#include <string_view>

namespace orvex {

class Assembly;

inline constexpr std::string_view flusherActivityName = "com.kelvar.orvexd.flusher.background";
inline constexpr std::string_view customFeedbackActivityName = "com.kelvar.orvexd.dp.flush";

/// Checks in the daemon's two background activities with the assembly's scheduler. Their handlers run on its queue.
void checkInActivities(Assembly& assembly);

}  // namespace orvex
