#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "platform/bus_value.h"
#include "platform/clock.h"

namespace orvex {

class Assembly;

/// What the daemon is doing, as `Diagnostics.Status` answers. Dates are seconds since 1970, 0 = none.
///
///     version s, uptime_seconds d, connections u     clients that are connected
///     calls_in_flight u                              the one that asks is not counted
///     transactions as                                what keeps it alive, by name
///     activities aa{sv}                              background activities: `name` s, `under_way` b, `due` d (in the
///                                                    past: it waits for a network or for mains; 0: on demand only)
///     switched_off as                                settings that are on and keep something back
///     bag_version s, bag_fetched d, bag_expires d, bag_enabled b, feedback_enabled b
///     gazel_visible b, hashtag_images_visible b
///     session_state u                                of the shared session manager
///     sessions_open u, records_open t                of all managers
///     sessions_waiting u, sessions_waiting_bytes t   finished ones that wait for upload
///     uploads_pending u, downloads_pending u, transfers_bytes t
///     next_transfer d, next_transfer_why s           the earliest next attempt; else what the oldest is waiting for
///     query_cache_entries t, query_cache_cost t
///     engaged_completions t, engaged_completions_bytes t
///     resources u, resources_bytes t
///     counters_changed a{sx}                         since the start: by how much; a level: what it is
///
/// Reads what components already know. On the disk it looks at the attributes of resources and of downloads under way,
/// and at nothing else. It waits for the bag's, the registry's, the transfers' and the downloads' queues, and never for
/// those that write feedback, run activities or serve clients.
/// Threading: `dictionary` from any thread that may wait.
class Status {
public:
    /// What the bus listener alone can tell; callable from any thread, without waiting.
    struct Traffic {
        std::function<std::size_t()> connections;
        std::function<std::size_t()> callsInFlight;
    };

    Status(Assembly& assembly, Traffic traffic);

    [[nodiscard]] platform::BusDictionary dictionary() const;

private:
    void _tellWork(platform::BusDictionary& status) const;
    void _tellBag(platform::BusDictionary& status) const;
    void _tellSessions(platform::BusDictionary& status) const;
    void _tellTransfers(platform::BusDictionary& status) const;
    void _tellCaches(platform::BusDictionary& status) const;
    void _tellCounters(platform::BusDictionary& status) const;

    // Constant after construction.
    Assembly& _assembly;
    const Traffic _traffic;
    const platform::MonotonicTime _started;
    const std::map<std::string, std::int64_t> _countersAtStart;
};

}  // namespace orvex
