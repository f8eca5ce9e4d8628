#include "feedback/own_session_limit.h"

#include "platform/counters.h"
#include "platform/dispatch.h"

namespace orvex {

OwnSessionLimit::OwnSessionLimit(platform::Dispatcher& dispatcher, platform::Counters& counters)
    : _dispatcher(dispatcher),
      _counters(counters) {}

bool OwnSessionLimit::admit(Kind kind) {
    const auto now = _dispatcher.now();
    {
        const platform::MutexLock lock(_mutex);
        auto& begun = _begun[static_cast<std::size_t>(kind)];
        while (!begun.empty() && now - begun.front() >= std::chrono::hours(1)) begun.pop_front();
        if (begun.size() < mostAnHour) {
            begun.push_back(now);
            return true;
        }
    }
    _counters.add(kind == Kind::error ? "com.kelvar.orvexd.feedbackdropped.errorsessions"
                                      : "com.kelvar.orvexd.feedbackdropped.bagfetchsessions");
    return false;
}

}  // namespace orvex
