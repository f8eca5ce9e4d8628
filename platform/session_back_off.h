#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "platform/clock.h"

namespace orvex::platform {

/// How long a session of transfers leaves its servers alone after a temporary failure.
///
///     steady ──failed──▶ backing off, 60 s ──failed: four times as long, at most 12 h──▶ backing off
///                        backing off ──succeeded──▶ steady
///
/// Each delay is drawn from its upper half, so that many daemons do not come back together; a server that says how long
/// (Retry-After, more than nothing) is obeyed instead. Attempts that began before the delay was set failed for the same
/// reason as the one that set it: they lengthen nothing but what their server asks for.
///
/// Threading: none of its own.
class SessionBackOff {
public:
    static constexpr std::chrono::seconds firstDelay{60};
    static constexpr std::chrono::seconds longestDelay = std::chrono::hours(12);
    static constexpr int growth = 4;

    using Draw = std::function<double()>;  ///< evenly from [0, 1)

    struct Attempt {
        MonotonicTime began;
        MonotonicTime failed;
        std::optional<std::chrono::seconds> retryAfter;
    };

    explicit SessionBackOff(Draw draw) : _draw(std::move(draw)) {}

    void failed(const Attempt& attempt);
    void succeeded();

    /// None: steady. While backing off, one attempt alone may be made from then on.
    [[nodiscard]] std::optional<MonotonicTime> nextAttempt() const { return _next; }

private:
    const Draw _draw;
    std::chrono::seconds _delay{0};  ///< before the draw; 0 while steady
    MonotonicTime _set;              ///< when the present delay was
    std::optional<MonotonicTime> _next;
};

}  // namespace orvex::platform
