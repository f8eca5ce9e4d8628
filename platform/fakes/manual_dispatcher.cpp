#include "platform/fakes/manual_dispatcher.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "platform/queue_core.h"

namespace orvex::platform {

namespace {

constexpr std::chrono::days longestWait{366};  // a timer that arms itself ends no wait

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

    void signal() override { _signalled = true; }
    bool wait(std::optional<MonotonicTime> deadline) override { return _dispatcher._wait(*this, deadline); }
    [[nodiscard]] bool takeSignal() { return std::exchange(_signalled, false); }

private:
    ManualDispatcher& _dispatcher;
    bool _signalled = false;
};

ManualDispatcher::~ManualDispatcher() {
    // One by one, since what is destroyed may submit or unschedule more.
    while (_takeDue(MonotonicTime::max())) continue;
    while (_pop()) continue;
}

void ManualDispatcher::_push(std::size_t line, Work work) {
    if (work) _pending[line].push_back(std::move(work));
}

void ManualDispatcher::submit(Priority priority, Work work) {
    _push(mainLine + 1 + static_cast<std::size_t>(priority), std::move(work));
}

void ManualDispatcher::submitMain(Work work) { _push(mainLine, std::move(work)); }

Work ManualDispatcher::_pop() {
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
    while (_runOne() || _fireNext(_now)) ++count;
    return count;
}

void ManualDispatcher::advance(std::chrono::nanoseconds duration) {
    runPending();
    const auto target = _now + duration;
    while (_fireNext(target)) runPending();
    _now = std::max(_now, target);
    runPending();
}

std::optional<MonotonicTime> ManualDispatcher::nextDue() const {
    if (_timers.empty()) return {};
    return _timers.begin()->first.first;
}

Dispatcher::TimerId ManualDispatcher::schedule(MonotonicTime due, std::chrono::nanoseconds, Work fire) {
    _timers.emplace(Moment(due, ++_lastTimer), std::move(fire));
    return _lastTimer;
}

void ManualDispatcher::unschedule(TimerId timer) {
    const auto found =
        std::ranges::find_if(_timers, [timer](const auto& entry) { return entry.first.second == timer; });
    if (found != _timers.end()) (void)_timers.extract(found);  // what it held may unschedule more
}

Work ManualDispatcher::_takeDue(MonotonicTime until) {
    if (_timers.empty() || _timers.begin()->first.first > until) return {};
    Work due = std::move(_timers.begin()->second);
    _now = std::max(_now, _timers.begin()->first.first);
    _timers.erase(_timers.begin());
    return due;
}

/// Moves the clock to the next timer, if that is not after `until`, and fires it.
bool ManualDispatcher::_fireNext(MonotonicTime until) {
    Work fire = _takeDue(until);
    if (!fire) return false;
    runAside(std::move(fire));
    return true;
}

std::unique_ptr<WaitPoint> ManualDispatcher::makeWaitPoint() { return std::make_unique<ManualWaitPoint>(*this); }

bool ManualDispatcher::_wait(ManualWaitPoint& point, std::optional<MonotonicTime> deadline) {
    const auto longest = _now + longestWait;
    for (;;) {
        if (point.takeSignal()) return true;
        if (_runOne() || _fireNext(deadline.value_or(longest))) continue;
        if (!deadline) abortDeadlocked();
        _now = std::max(_now, *deadline);
        return false;
    }
}

}  // namespace orvex::platform
