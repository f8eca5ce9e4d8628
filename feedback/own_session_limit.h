#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "platform/clock.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {
class Counters;
class Dispatcher;
}  // namespace orvex::platform

namespace orvex {

/// How many sessions the daemon may begin on its own account, each of which is a file: `mostAnHour` of each kind. So a
/// client that sends nonsense, or a server that cannot be reached, does not fill the disk.
/// Threading: callable from any thread; a leaf lock.
class OwnSessionLimit {
public:
    enum class Kind : std::uint8_t { error, bagFetch };
    static constexpr std::size_t mostAnHour = 20;

    OwnSessionLimit(platform::Dispatcher& dispatcher, platform::Counters& counters);

    /// Whether one more may begin now, which then counts. Each that may not is counted under "…feedbackdropped…".
    [[nodiscard]] bool admit(Kind kind);

private:
    platform::Dispatcher& _dispatcher;
    platform::Counters& _counters;

    platform::Mutex _mutex;
    std::array<std::deque<platform::MonotonicTime>, 2> _begun ORX_GUARDED_BY(_mutex);  ///< in the last hour, by kind
};

}  // namespace orvex
