#pragma once

#include <cstdint>
#include <string>

#include "platform/dispatch.h"
#include "platform/thread_annotations.h"

namespace orvex {

/// Whether asking for the session begins another one first.
enum class ResetMapsSession : bool { no, yes };

/// One use of the maps service, told by requests: an identifier made at random, a number that goes up by one with every
/// request that tells it, and the time since the session began.
///
/// Threading: callable from any thread.
class MapsUserSession {
public:
    explicit MapsUserSession(platform::Dispatcher& dispatcher);

    /// "IDENTIFIER NUMBER SECONDS", for one request; the first number is 1.
    [[nodiscard]] std::string nextEntity();
    /// The same for the last request that told it, without counting: 0 before the first.
    [[nodiscard]] std::string currentEntity() const;
    /// Begins another session.
    void reset();

private:
    [[nodiscard]] std::string _entity() const ORX_REQUIRES(_mutex);

    // Constant after construction.
    platform::Dispatcher& _dispatcher;

    mutable platform::Mutex _mutex;
    std::string _identifier ORX_GUARDED_BY(_mutex);
    std::int64_t _sequenceNumber ORX_GUARDED_BY(_mutex) = 0;
    platform::MonotonicTime _began ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex
