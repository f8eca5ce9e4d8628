#include "platform/session_back_off.h"

#include <algorithm>

namespace orvex::platform {

void SessionBackOff::failed(const Attempt& attempt) {
    const bool asked = attempt.retryAfter && *attempt.retryAfter > std::chrono::seconds(0);
    if (_next && attempt.began <= _set) {
        if (asked) _next = std::max(*_next, attempt.failed + *attempt.retryAfter);
        return;
    }
    _delay = _next ? std::min(_delay * growth, longestDelay) : firstDelay;
    _set = attempt.failed;
    const std::chrono::duration<double> drawn = _delay * (0.5 + _draw() / 2);
    _next = attempt.failed + (asked ? std::chrono::nanoseconds(*attempt.retryAfter)
                                    : std::chrono::duration_cast<std::chrono::nanoseconds>(drawn));
}

void SessionBackOff::succeeded() {
    _delay = std::chrono::seconds(0);
    _next.reset();
}

}  // namespace orvex::platform
