#pragma once

#include <array>
#include <condition_variable>
#include <deque>
#include <map>
#include <optional>
#include <thread>

#include "platform/dispatch.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// The dispatcher of a test: everything runs on the test's thread, in a fixed order, and time stands still until it is
/// moved.
///
/// Order: the main thread's work first, then the pool's by priority, each first in, first out. Timers fire in the order
/// of their times, each at exactly its time (leeway is ignored), and what they lead to runs before the next.
/// A wait on the test's thread runs the work of others meanwhile; when there is none, it moves the clock to the next
/// timer before its deadline, else to the deadline. A wait inside such work may move the clock past the deadline of the
/// wait outside, which then ends late. A wait without a deadline, with nothing to run and no timer, is a deadlock: it
/// aborts, after `deadlockGrace` of real time in which another thread may still come to its help.
///
/// Threading: made by the test's thread, which alone runs work and moves time. Other real threads (of a bus or an HTTP
/// session) may submit, schedule, use queues, and wait: their waits end by a signal, or when the test has moved the
/// clock far enough.
class ManualDispatcher final : public Dispatcher {
public:
    struct Options {
        WallTime date{std::chrono::seconds(1'700'000'000)};  ///< at the start: 2023-11-14 22:13:20 UTC
        std::chrono::milliseconds deadlockGrace{10'000};     ///< real time
    };

    ManualDispatcher() : ManualDispatcher(Options{}) {}
    explicit ManualDispatcher(Options options);
    ~ManualDispatcher() override;  ///< destroys unrun what is left
    ManualDispatcher(const ManualDispatcher&) = delete;
    ManualDispatcher& operator=(const ManualDispatcher&) = delete;

    /// Runs everything that is submitted, and what that submits; returns how many pieces it were. Time does not move.
    std::size_t runPending();

    /// Runs what is submitted, then moves both clocks by `duration`, and on the way calls what falls due.
    void advance(std::chrono::nanoseconds duration);
    [[nodiscard]] std::optional<MonotonicTime> nextDue() const;  ///< of the timers; none: nothing to wake up for

    void setWall(WallTime date);                       ///< the date alone; timers do not notice
    void jumpWall(std::chrono::nanoseconds duration);  ///< back, too

    /// For a test with real threads beside its own: runs what they submit, until `condition` holds. Time does not move.
    /// False when it does not hold within a minute of real time.
    [[nodiscard]] bool runUntil(std::move_only_function<bool()> condition);

    [[nodiscard]] MonotonicTime now() const override;
    [[nodiscard]] WallTime wallNow() const override;
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
    void _moveTo(MonotonicTime time);
    void _changed() ORX_REQUIRES(_mutex);
    [[nodiscard]] std::uint64_t _changeCount() const;
    [[nodiscard]] bool _awaitChange(std::uint64_t after, std::chrono::milliseconds atMost);
    [[nodiscard]] bool _wait(ManualWaitPoint& point, std::optional<MonotonicTime> deadline);
    [[nodiscard]] bool _waitElsewhere(ManualWaitPoint& point, std::optional<MonotonicTime> deadline);
    [[nodiscard]] bool _takeSignal(ManualWaitPoint& point);

    // Constant after construction.
    const Options _options;
    const std::thread::id _testThread = std::this_thread::get_id();

    mutable Mutex _mutex;
    std::condition_variable _onChange;
    std::uint64_t _changes ORX_GUARDED_BY(_mutex) = 0;  ///< work came, a wait was signalled, or time moved
    std::array<std::deque<Work>, 4> _pending ORX_GUARDED_BY(_mutex);
    std::map<Moment, Work> _timers ORX_GUARDED_BY(_mutex);
    TimerId _lastTimer ORX_GUARDED_BY(_mutex) = 0;
    MonotonicTime _now ORX_GUARDED_BY(_mutex){std::chrono::hours(1)};
    std::chrono::nanoseconds _dateAhead ORX_GUARDED_BY(_mutex);  ///< of the monotonic clock
};

}  // namespace orvex::platform
