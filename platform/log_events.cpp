#include "platform/log_events.h"

#include <algorithm>
#include <array>
#include <ranges>

namespace orvex::platform {
namespace {

constexpr auto table = std::to_array<LogEventDescription>({
    {LogEvent::started, "started", "32b71f94923c6df87ab0bac66020e258", "ORVEX_VERSION",
     "The daemon has its bus name and answers calls."},
    {LogEvent::stopping, "stopping", "812d8e2dac5d11d3352b18544c8b32f7", "ORVEX_SIGNAL",
     "A signal asked the daemon to stop."},
    {LogEvent::idleExit, "idle-exit", "4cfa35ee8f898fc5085d1d0c7414d1bf", "",
     "The daemon leaves because nothing has needed it for a while."},
    {LogEvent::busGone, "bus-gone", "5693d51530af74f0e2720fa31ae0915e", "",
     "The message bus has gone away, and the daemon leaves."},
    {LogEvent::startRefused, "start-refused", "5a2b5cd687dcdf3af820ad9ad1c1e303", "ORVEX_REASON",
     "The daemon cannot start: there is no bus, or another one runs already."},
    {LogEvent::noDirectory, "no-directory", "e604e2ede5fe591ea20b5c5e33ac96cb", "ORVEX_REASON",
     "A directory of the daemon cannot be used, so what belongs there is not kept."},
    {LogEvent::settingsBroken, "settings-broken", "f3d9f359a74f74b478f2977074d02333", "ORVEX_FILE ORVEX_REASON",
     "The settings file cannot be read; it is set aside and the defaults apply."},
    {LogEvent::settingRefused, "setting-refused", "ea2e7e24e73ce62c3686fb67ac7c0272", "ORVEX_KEY",
     "A setting has a value that it cannot have, and its default applies."},
    {LogEvent::fileSetAside, "file-set-aside", "486f521d7d1c4df06668911f320da16b", "ORVEX_FILE ORVEX_REASON",
     "A file of the daemon cannot be read; it is set aside and made anew."},
    {LogEvent::writeFailed, "write-failed", "f0f74f572d1eaaf2de382193c275c15a", "ORVEX_FILE ORVEX_REASON",
     "A file could not be written."},
    {LogEvent::sessionFileDropped, "session-file-dropped", "2272623284b775a9cc63180ec0d919f3", "ORVEX_FILE",
     "Too much feedback waits, and the oldest was removed."},
    {LogEvent::bagFetchFailed, "bag-fetch-failed", "1bce7e025aa894d65a24bc8d0eec7aec", "ORVEX_REASON",
     "The server's configuration could not be fetched."},
    {LogEvent::bagFetched, "bag-fetched", "6838765594e8e2604911a2a3bcba2857", "",
     "The server's configuration was fetched."},
    {LogEvent::bagEntryRefused, "bag-entry-refused", "4cba6976d0b498e15fc3e79dbf6f0eb4", "ORVEX_REASON",
     "The server's configuration has an entry that cannot be used."},
    {LogEvent::transfersBackingOff, "transfers-backing-off", "35f5a6eb4df4ccaa0db1afe992e7e50f",
     "ORVEX_SESSION ORVEX_REASON", "A server fails, and transfers leave it alone for a while."},
    {LogEvent::uploadFailed, "upload-failed", "af507f90923d1a6d33c571ccb7118761", "ORVEX_STATUS",
     "The server refused an upload for good."},
    {LogEvent::downloadFailed, "download-failed", "465c310ff89d2fb7aeb088c4c0f1fe54", "ORVEX_RESOURCE ORVEX_REASON",
     "A file that the server offers could not be downloaded."},
    {LogEvent::transferDropped, "transfer-dropped", "90d359065ead0c3bf0b5bb7e15818f83", "ORVEX_REASON",
     "A transfer was given up before the server had it."},
    {LogEvent::clientRefused, "client-refused", "0fb4c5fc9fe55f779285181c3fca4ca9", "ORVEX_COUNT",
     "There are as many clients as the daemon keeps, and another one was refused."},
    {LogEvent::callsRefused, "calls-refused", "045196caf0c8bf1bde72098ac06c1359", "ORVEX_CLIENT",
     "A client has too many calls in flight, and its further ones are refused."},
    {LogEvent::memoryPressure, "memory-pressure", "20abb52355b84622d7cdf5b855b36826", "",
     "The machine is short of memory, and cached answers were let go."},
    {LogEvent::activityOverdue, "activity-overdue", "ad1bae68dc382e5a9861f9f7eba8b8cb", "ORVEX_ACTIVITY",
     "Background work did not end in time, and was ended."},
});

consteval bool isInOrder() {
    for (std::size_t index = 0; index < table.size(); ++index) {
        if (static_cast<std::size_t>(table[index].event) != index) return false;
    }
    return true;
}
static_assert(isInOrder());

}  // namespace

const LogEventDescription& describe(LogEvent event) { return table.at(static_cast<std::size_t>(event)); }

std::span<const LogEventDescription> logEvents() { return table; }

bool hasField(LogEvent event, std::string_view field) {
    return std::ranges::any_of(describe(event).fields | std::views::split(' '),
                               [&](const auto& name) { return std::string_view(name) == field; });
}

}  // namespace orvex::platform
