#include "daemon/idle_exit.h"

#include "daemon/assembly.h"
#include "platform/log.h"
#include "platform/log_events.h"
#include "platform/transactions.h"

namespace orvex {

IdleExit::IdleExit(Assembly& assembly, std::chrono::nanoseconds idleTime, std::function<std::size_t()> callsInFlight,
                   std::function<void()> leave)
    : _assembly(assembly),
      _idleTime(idleTime),
      _callsInFlight(std::move(callsInFlight)),
      _leave(std::move(leave)),
      _queue(assembly.dispatcher(), "com.kelvar.orvexd.idle"),
      _timer(_queue) {
    const auto reconsider = [this] {
        _queue.async([this] {
            _queue.assertCurrent();
            _reconsider();
        });
    };
    assembly.transactions().setIdleHandler([reconsider](bool) { reconsider(); });
    reconsider();
}

IdleExit::~IdleExit() {
    _assembly.transactions().setIdleHandler(nullptr);
    _queue.close();
}

void IdleExit::_reconsider() {
    const auto idleSince = _assembly.transactions().idleSince();
    if (!idleSince || _left) {
        _timer.cancel();
        return;
    }
    const auto now = _assembly.dispatcher().now();
    const auto due = *idleSince + _idleTime;
    if (now >= due && _callsInFlight() == 0) {
        _left = true;
        platform::defaultLogger()
            .as(platform::LogEvent::idleExit)
            .log("nothing to do since {:.1f} s, leaving", std::chrono::duration<double>(now - *idleSince).count());
        _leave();
        return;
    }
    // A call that is in flight when the time has passed is given as long again.
    _timer.armAt(now >= due ? now + _idleTime : due, [this] {
        _queue.assertCurrent();
        _reconsider();
    });
}

}  // namespace orvex
