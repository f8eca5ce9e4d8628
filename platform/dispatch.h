#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "platform/clock.h"
#include "platform/thread_annotations.h"

/// Queues, timers and waits over one pool of threads. A `Dispatcher` gives time, threads and waiting; everything else
/// here is built on those, so that the same queues run on real threads (platform/linux/thread_dispatcher.h) and, in
/// tests, on the test's own thread with a clock moved by hand (platform/fakes/manual_dispatcher.h).
///
/// `sync` and `barrierSync` run on the caller's thread. A caller that has to wait runs the queue's earlier items
/// itself, in order, as long as no other thread is on them; a pool thread that blocks in `Semaphore::wait` or
/// `TaskGroup::wait` is replaced by a spare one for that long. So no number of waiters starves the pool.
namespace orvex::platform {

using Work = std::move_only_function<void()>;

enum class Priority { high, standard, background };

class QueueCore;
struct TimerState;

enum class QueueAccess : std::uint8_t { read, barrier };

/// What a wait sleeps on. Made by a dispatcher, since a test's wait must run other work and move the clock instead.
class WaitPoint {
public:
    virtual ~WaitPoint() = default;
    virtual void signal() = 0;  ///< from any thread; ends one present or later `wait`
    /// Returns true once signalled, false when `deadline` came first. No deadline: waits for ever.
    virtual bool wait(std::optional<MonotonicTime> deadline) = 0;
};

class Dispatcher {
public:
    using TimerId = std::uint64_t;

    virtual ~Dispatcher() = default;
    [[nodiscard]] virtual MonotonicTime now() const = 0;
    [[nodiscard]] virtual WallTime wallNow() const = 0;

    /// Runs `work` soon on a pool thread; higher priorities first, each in order.
    virtual void submit(Priority priority, Work work) = 0;

    /// Calls `fire` once, between `due` and `due + leeway`, on a thread of the dispatcher's own: it may only submit.
    virtual TimerId schedule(MonotonicTime due, std::chrono::nanoseconds leeway, Work fire) = 0;
    virtual void unschedule(TimerId timer) = 0;  ///< a timer that fires at this moment is not waited for

    virtual std::unique_ptr<WaitPoint> makeWaitPoint() = 0;

    /// Work for the main thread, in order; `main` drains it.
    virtual void submitMain(Work work) = 0;
};

/// The calling thread's turn on a queue, from construction to destruction; the innermost of those that it holds. What
/// the queues below run under; nobody else makes one.
class QueueTurn {
public:
    QueueTurn(QueueCore& core, QueueAccess access);  ///< waits for the turn
    ~QueueTurn();
    QueueTurn(const QueueTurn&) = delete;
    QueueTurn& operator=(const QueueTurn&) = delete;

private:
    friend class QueueCore;
    friend class HeldQueuesAside;
    struct Granted {};
    QueueTurn(QueueCore& core, Granted);  ///< of a thread that has the turn already and gives it back itself

    QueueCore& _core;
    const QueueAccess _access;
    const bool _givesBack;
    const QueueTurn* _outer = nullptr;
};

/// One item at a time, first in, first out.
///
/// A queue is a capability: data that it guards is `ORX_GUARDED_BY(_queue)`, operations on it `ORX_REQUIRES(_queue)`,
/// and every posted block begins with `assertCurrent()`.
class ORX_CAPABILITY("queue") SerialQueue {
public:
    SerialQueue(Dispatcher& dispatcher, std::string label, Priority priority = Priority::standard);
    /// Closes. From one of the queue's own items it does not wait: that item goes on, what is queued behind it is
    /// dropped, since its owner is gone.
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    /// Callable from any thread. On a closed queue the work is dropped (destroyed unrun).
    void async(Work work);

    /// Runs `function` on the caller's thread when everything queued before has run, and returns its result.
    /// Aborts with both labels when the calling thread already holds this queue. On a closed queue it still runs.
    template <std::invocable Function>
    std::invoke_result_t<Function> sync(Function&& function) const {
        const QueueTurn turn(*_core, QueueAccess::barrier);
        return std::forward<Function>(function)();
    }

    /// Queues `work` when `delay` has passed. It cannot be taken back: for that there is `Timer`.
    void after(std::chrono::nanoseconds delay, Work work, std::chrono::nanoseconds leeway = {});

    /// Runs what is queued, then takes nothing more. What was posted with `after` and is not due is dropped.
    /// Called on the queue itself it only stops taking more: what is queued runs after the present item.
    void close();

    /// Aborts when the calling thread is not running an item of this queue.
    void assertCurrent() const ORX_ASSERT_CAPABILITY(this);
    [[nodiscard]] bool isCurrent() const;

    [[nodiscard]] const std::string& label() const;
    [[nodiscard]] Dispatcher& dispatcher() const;

private:
    friend class Timer;
    friend class TaskGroup;

    std::shared_ptr<QueueCore> _core;
};

/// Many readers or one writer, first in, first out between them: a read that comes after a barrier waits for it.
class ORX_CAPABILITY("queue") ConcurrentQueue {
public:
    ConcurrentQueue(Dispatcher& dispatcher, std::string label, Priority priority = Priority::standard);
    ~ConcurrentQueue();  ///< closes, as SerialQueue's does
    ConcurrentQueue(const ConcurrentQueue&) = delete;
    ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

    /// A read, on the caller's thread. Reads may nest in a read of another queue, not of the same one.
    template <std::invocable Function>
    std::invoke_result_t<Function> sync(Function&& function) const {
        const QueueTurn turn(*_core, QueueAccess::read);
        return std::forward<Function>(function)();
    }
    template <std::invocable Function>
    std::invoke_result_t<Function> barrierSync(Function&& function) {
        const QueueTurn turn(*_core, QueueAccess::barrier);
        return std::forward<Function>(function)();
    }
    void barrierAsync(Work work);  ///< on a closed queue the work is dropped
    void close();                  ///< as SerialQueue::close

    void assertCurrent() const ORX_ASSERT_SHARED_CAPABILITY(this);  ///< a read or a barrier of this queue
    void assertBarrier() const ORX_ASSERT_CAPABILITY(this);
    [[nodiscard]] bool isCurrent() const;

    [[nodiscard]] const std::string& label() const;
    [[nodiscard]] Dispatcher& dispatcher() const;

private:
    std::shared_ptr<QueueCore> _core;
};

/// Items that need no order and guard nothing; they run side by side on the pool.
class GlobalQueue {
public:
    GlobalQueue(Dispatcher& dispatcher, Priority priority) : _dispatcher(dispatcher), _priority(priority) {}
    void async(Work work) const { _dispatcher.submit(_priority, std::move(work)); }
    void after(std::chrono::nanoseconds delay, Work work, std::chrono::nanoseconds leeway = {}) const;

private:
    Dispatcher& _dispatcher;
    const Priority _priority;
};

/// The main thread's queue.
class MainQueue {
public:
    explicit MainQueue(Dispatcher& dispatcher) : _dispatcher(dispatcher) {}
    void async(Work work) const { _dispatcher.submitMain(std::move(work)); }
    void after(std::chrono::nanoseconds delay, Work work, std::chrono::nanoseconds leeway = {}) const;

private:
    Dispatcher& _dispatcher;
};

/// One-shot, re-armable. Its block runs on the queue that it was made with, or on the pool for a `GlobalQueue`'s
/// priority. Re-arming replaces what was armed. After `cancel`, or the destructor, has returned on that serial queue,
/// the block does not run; from another thread it may be running at that moment.
class Timer {
public:
    explicit Timer(SerialQueue& queue);
    Timer(Dispatcher& dispatcher, Priority priority);
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    void armAt(MonotonicTime due, Work work, std::chrono::nanoseconds leeway = {});
    void armAfter(std::chrono::nanoseconds delay, Work work, std::chrono::nanoseconds leeway = {});
    void cancel();
    [[nodiscard]] bool armed() const;  ///< false from the moment the block begins

private:
    std::shared_ptr<TimerState> _state;
};

/// A counting semaphore.
class Semaphore {
public:
    Semaphore(Dispatcher& dispatcher, std::size_t count);
    ~Semaphore();
    void signal();
    [[nodiscard]] bool wait(std::chrono::nanoseconds timeout);  ///< false: the time ran out
    [[nodiscard]] bool waitUntil(std::optional<MonotonicTime> deadline);

private:
    struct State;
    std::unique_ptr<State> _state;
};

/// Counts work that is under way. `wait` and `notify` are for the moment when the count is zero.
class TaskGroup {
public:
    explicit TaskGroup(Dispatcher& dispatcher);
    ~TaskGroup();
    void enter();
    void leave();  ///< aborts when nothing was entered
    [[nodiscard]] bool wait(std::optional<std::chrono::nanoseconds> timeout = {});
    void notify(SerialQueue& queue, Work work);  ///< once; at once when nothing is under way

private:
    struct State;
    std::shared_ptr<State> _state;
};

}  // namespace orvex::platform
