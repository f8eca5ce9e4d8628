#include "platform/fakes/manual_dispatcher.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "platform/queue_core.h"

namespace orvex::platform {

namespace {

constexpr std::chrono::seconds helpFromOtherThreads{60};  // real time
constexpr std::chrono::days longestWait{366};             // of the manual clock: a timer that arms itself ends no wait

/// As if on a thread of its own: not on the queues that a wait below it on the stack holds.
void runAside(Work work) noexcept {
    const HeldQueuesAside aside;
    work();
    work = nullptr;
}

[[noreturn]] void abortDeadlocked() {
    std::fputs("deadlock: a wait without a deadline, and nothing left to run that could end it\n", stderr);
    std::abort();
}

}  // namespace

class ManualDispatcher::ManualWaitPoint final : public WaitPoint {
public:
    explicit ManualWaitPoint(ManualDispatcher& dispatcher) : _dispatcher(dispatcher) {}

    void signal() override {
        const MutexLock lock(_dispatcher._mutex);
        signalled = true;
        _dispatcher._changed();
    }
    bool wait(std::optional<MonotonicTime> deadline) override {
        return std::this_thread::get_id() == _dispatcher._testThread ? _dispatcher._wait(*this, deadline)
                                                                     : _dispatcher._waitElsewhere(*this, deadline);
    }

    bool signalled = false;  ///< under the dispatcher's lock

private:
    ManualDispatcher& _dispatcher;
};

ManualDispatcher::ManualDispatcher(Options options)
    : _options(options),
      _dateAhead(options.date.time_since_epoch() - _now.time_since_epoch()) {}

ManualDispatcher::~ManualDispatcher() {
    // One by one, since what is destroyed may submit or unschedule more.
    while (_takeDue(MonotonicTime::max())) continue;
    while (_pop()) continue;
}

void ManualDispatcher::_changed() {
    ++_changes;
    _onChange.notify_all();
}

std::uint64_t ManualDispatcher::_changeCount() const {
    const MutexLock lock(_mutex);
    return _changes;
}

void ManualDispatcher::_push(std::size_t line, Work work) {
    if (!work) return;
    const MutexLock lock(_mutex);
    _pending[line].push_back(std::move(work));
    _changed();
}

void ManualDispatcher::submit(Priority priority, Work work) {
    _push(mainLine + 1 + static_cast<std::size_t>(priority), std::move(work));
}

void ManualDispatcher::submitMain(Work work) { _push(mainLine, std::move(work)); }

Work ManualDispatcher::_pop() {
    const MutexLock lock(_mutex);
    const auto line = std::ranges::find_if(_pending, [](const auto& works) { return !works.empty(); });
    if (line == _pending.end()) return {};
    Work work = std::move(line->front());
    line->pop_front();
    return work;
}

bool ManualDispatcher::_runOne() {
    Work work = _pop();
    if (!work) return false;
    runAside(std::move(work));
    return true;
}

std::size_t ManualDispatcher::runPending() {
    std::size_t count = 0;
    while (_runOne() || _fireNext(now())) ++count;
    return count;
}

void ManualDispatcher::advance(std::chrono::nanoseconds duration) {
    runPending();
    const auto target = now() + duration;
    while (_fireNext(target)) runPending();
    _moveTo(target);
    runPending();
}

std::optional<MonotonicTime> ManualDispatcher::nextDue() const {
    const MutexLock lock(_mutex);
    if (_timers.empty()) return {};
    return _timers.begin()->first.first;
}

Dispatcher::TimerId ManualDispatcher::schedule(MonotonicTime due, std::chrono::nanoseconds, Work fire) {
    const MutexLock lock(_mutex);
    _timers.emplace(Moment(due, ++_lastTimer), std::move(fire));
    _changed();
    return _lastTimer;
}

void ManualDispatcher::unschedule(TimerId timer) {
    Work dropped;
    const MutexLock lock(_mutex);
    const auto found =
        std::ranges::find_if(_timers, [timer](const auto& entry) { return entry.first.second == timer; });
    if (found == _timers.end()) return;
    dropped = std::move(found->second);
    _timers.erase(found);
}

Work ManualDispatcher::_takeDue(MonotonicTime until) {
    const MutexLock lock(_mutex);
    if (_timers.empty() || _timers.begin()->first.first > until) return {};
    Work due = std::move(_timers.begin()->second);
    _now = std::max(_now, _timers.begin()->first.first);
    _timers.erase(_timers.begin());
    _changed();
    return due;
}

/// Moves the clock to the next timer, if that is not after `until`, and fires it.
bool ManualDispatcher::_fireNext(MonotonicTime until) {
    Work fire = _takeDue(until);
    if (!fire) return false;
    runAside(std::move(fire));
    return true;
}

void ManualDispatcher::_moveTo(MonotonicTime time) {
    const MutexLock lock(_mutex);
    _now = std::max(_now, time);
    _changed();
}

MonotonicTime ManualDispatcher::now() const {
    const MutexLock lock(_mutex);
    return _now;
}

WallTime ManualDispatcher::wallNow() const {
    const MutexLock lock(_mutex);
    return WallTime(_now.time_since_epoch() + _dateAhead);
}

void ManualDispatcher::setWall(WallTime date) {
    const MutexLock lock(_mutex);
    _dateAhead = date.time_since_epoch() - _now.time_since_epoch();
}

void ManualDispatcher::jumpWall(std::chrono::nanoseconds duration) {
    const MutexLock lock(_mutex);
    _dateAhead += duration;
}

std::unique_ptr<WaitPoint> ManualDispatcher::makeWaitPoint() { return std::make_unique<ManualWaitPoint>(*this); }

bool ManualDispatcher::_takeSignal(ManualWaitPoint& point) {
    const MutexLock lock(_mutex);
    return std::exchange(point.signalled, false);
}

bool ManualDispatcher::_wait(ManualWaitPoint& point, std::optional<MonotonicTime> deadline) {
    const auto longest = now() + longestWait;
    for (;;) {
        const auto seen = _changeCount();
        if (_takeSignal(point)) return true;
        if (_runOne() || _fireNext(deadline.value_or(longest))) continue;
        if (deadline) {
            _moveTo(*deadline);
            return _takeSignal(point);
        }
        if (!_awaitChange(seen, _options.deadlockGrace)) abortDeadlocked();
    }
}

bool ManualDispatcher::_waitElsewhere(ManualWaitPoint& point, std::optional<MonotonicTime> deadline) {
    for (;;) {
        const auto seen = _changeCount();
        if (_takeSignal(point)) return true;
        if (deadline && *deadline <= now()) return false;
        if (!_awaitChange(seen, helpFromOtherThreads)) abortDeadlocked();
    }
}

bool ManualDispatcher::runUntil(std::move_only_function<bool()> condition) {
    const auto giveUp = std::chrono::steady_clock::now() + helpFromOtherThreads;
    for (;;) {
        const auto seen = _changeCount();
        runPending();
        if (condition()) return true;
        // A condition may come true without a sign to us, so it is asked again every now and then.
        if (std::chrono::steady_clock::now() >= giveUp) return false;
        (void)_awaitChange(seen, std::chrono::milliseconds(10));
    }
}

/// False when nothing has changed since the count was `after`, for as long as `atMost`.
bool ManualDispatcher::_awaitChange(std::uint64_t after,
                                    std::chrono::milliseconds atMost) ORX_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(_mutex.native());
    return _onChange.wait_for(lock, atMost, [&]() ORX_NO_THREAD_SAFETY_ANALYSIS { return _changes != after; });
}

}  // namespace orvex::platform
