#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/dispatch.h"

namespace orvex {

class Assembly;

/// Notices that the daemon has had nothing to do for a while: no transaction open, and no call between arrival and
/// answer.
///
///     busy ──the last transaction ends──▶ waiting ──the time passes──▶ due: `leave` is called, once
///     waiting ──a transaction begins──▶ busy
///
/// A call that holds no transaction does not make it busy, but when the time has passed a call that is in flight is
/// waited for.
/// Threading: `leave` comes on its queue. Nothing wakes up while a transaction is open.
class IdleExit {
public:
    IdleExit(Assembly& assembly, std::chrono::nanoseconds idleTime, std::function<std::size_t()> callsInFlight,
             std::function<void()> leave);
    ~IdleExit();

private:
    void _reconsider() ORX_REQUIRES(_queue);

    // Constant after construction.
    Assembly& _assembly;
    const std::chrono::nanoseconds _idleTime;
    const std::function<std::size_t()> _callsInFlight;
    const std::function<void()> _leave;

    // Synchronised by itself.
    platform::SerialQueue _queue;

    // On the queue.
    platform::Timer _timer ORX_GUARDED_BY(_queue);
    bool _left ORX_GUARDED_BY(_queue) = false;
};

}  // namespace orvex
