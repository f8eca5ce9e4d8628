#pragma once

#include <array>
#include <deque>
#include <map>
#include <optional>

#include "platform/dispatch.h"

namespace orvex::platform {

/// The dispatcher of a test: everything runs on the test's thread, in a fixed order, and time stands still until it is
/// moved.
///
/// Order: the main thread's work first, then the pool's by priority, each first in, first out. Timers fire in the order
/// of their times, each at exactly its time (leeway is ignored), and what they lead to runs before the next.
/// A wait runs the work of others meanwhile; when there is none, it moves the clock to the next timer before its
/// deadline, else to the deadline. A wait inside such work may move the clock past the deadline of the wait outside,
/// which then ends late. A wait without a deadline, with nothing to run and no timer, is a deadlock: it aborts.
///
/// Threading: the test's thread alone.
class ManualDispatcher final : public Dispatcher {
public:
    ManualDispatcher() = default;  ///< at 2023-11-14 22:13:20 UTC
    ~ManualDispatcher() override;  ///< destroys unrun what is left
    ManualDispatcher(const ManualDispatcher&) = delete;
    ManualDispatcher& operator=(const ManualDispatcher&) = delete;

    /// Runs everything that is submitted, and what that submits; returns how many pieces it were. Time does not move.
    std::size_t runPending();

    /// Runs what is submitted, then moves both clocks by `duration`, and on the way calls what falls due.
    void advance(std::chrono::nanoseconds duration);
    [[nodiscard]] std::optional<MonotonicTime> nextDue() const;  ///< of the timers; none: nothing to wake up for

    /// The date alone, back too; timers do not notice.
    void jumpWall(std::chrono::nanoseconds duration) { _dateAhead += duration; }

    [[nodiscard]] MonotonicTime now() const override { return _now; }
    [[nodiscard]] WallTime wallNow() const override { return WallTime(_now.time_since_epoch() + _dateAhead); }
    void submit(Priority priority, Work work) override;
    TimerId schedule(MonotonicTime due, std::chrono::nanoseconds leeway, Work fire) override;
    void unschedule(TimerId timer) override;
    std::unique_ptr<WaitPoint> makeWaitPoint() override;
    void submitMain(Work work) override;

private:
    class ManualWaitPoint;
    using Moment = std::pair<MonotonicTime, TimerId>;
    static constexpr std::size_t mainLine = 0;  ///< before the three priorities

    void _push(std::size_t line, Work work);
    [[nodiscard]] Work _pop();
    [[nodiscard]] Work _takeDue(MonotonicTime until);
    bool _runOne();
    bool _fireNext(MonotonicTime until);
    [[nodiscard]] bool _wait(ManualWaitPoint& point, std::optional<MonotonicTime> deadline);

    std::array<std::deque<Work>, 4> _pending;
    std::map<Moment, Work> _timers;
    TimerId _lastTimer = 0;
    MonotonicTime _now{std::chrono::hours(1)};
    std::chrono::nanoseconds _dateAhead = std::chrono::seconds(1'700'000'000) - _now.time_since_epoch();  ///< of `_now`
};

}  // namespace orvex::platform
