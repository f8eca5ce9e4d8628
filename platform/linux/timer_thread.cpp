#include "platform/linux/timer_thread.h"

#include <pthread.h>

#include "platform/linux/steady_time.h"

namespace orvex::platform {

namespace {

MonotonicTime latestOf(MonotonicTime due, std::chrono::nanoseconds leeway) {
    return leeway > MonotonicTime::max() - due ? MonotonicTime::max() : due + leeway;
}

}  // namespace

Dispatcher::TimerId TimerThread::schedule(MonotonicTime due, std::chrono::nanoseconds leeway, Work fire) {
    due = std::max(due, steadyNow());  // so that no difference of times overflows
    const MutexLock lock(_mutex);
    const auto id = ++_lastId;
    if (_stopping) return id;  // `fire` is destroyed by the caller, after the lock
    const auto latest = latestOf(due, leeway);
    const bool first = _byLatest.empty() || latest < _byLatest.begin()->first;
    _scheduled.emplace(id, Scheduled{.due = due, .latest = latest, .fire = std::move(fire)});
    _byDue.emplace(due, id);
    _byLatest.emplace(latest, id);
    if (first) _changed.notify_one();
    return id;
}

void TimerThread::unschedule(Dispatcher::TimerId timer) {
    Work dropped;
    const MutexLock lock(_mutex);
    dropped = _extract(timer);
}

Work TimerThread::_extract(Dispatcher::TimerId timer) {
    const auto found = _scheduled.find(timer);
    if (found == _scheduled.end()) return {};
    Work fire = std::move(found->second.fire);
    _byDue.erase({found->second.due, timer});
    _byLatest.erase({found->second.latest, timer});
    _scheduled.erase(found);
    return fire;
}

void TimerThread::start() {
    if (!_thread.joinable()) _thread = std::thread([this] { _serve(); });
}

void TimerThread::stop() {
    decltype(_scheduled) dropped;
    {
        const MutexLock lock(_mutex);
        _stopping = true;
        _changed.notify_one();
    }
    if (_thread.joinable()) _thread.join();
    const MutexLock lock(_mutex);
    dropped.swap(_scheduled);
    _byDue.clear();
    _byLatest.clear();
}

void TimerThread::_serve() {
    pthread_setname_np(pthread_self(), "orvex-timers");
    while (Work fire = _nextDue()) fire();
}

/// Sleeps until something is to be called; none when the thread is to end.
Work TimerThread::_nextDue() ORX_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(_mutex.native());
    while (!_stopping) {
        const auto time = steadyNow();
        _awake = _awake || (!_byLatest.empty() && _byLatest.begin()->first <= time);
        if (_awake && !_byDue.empty() && _byDue.begin()->first <= time) return _extract(_byDue.begin()->second);
        _awake = false;
        if (_byLatest.empty()) {
            _changed.wait(lock);
        } else {
            _changed.wait_until(lock, asSteady(_byLatest.begin()->first));
        }
    }
    return {};
}

}  // namespace orvex::platform
