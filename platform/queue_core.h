#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/dispatch.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// What is under a SerialQueue and a ConcurrentQueue: a line of items, and who has the turn.
///
///     free ──enter, drain──▶ read by n threads, or held by one ──leave──▶ handed to the next in line, or free
///
/// Items are blocks of work, which anyone with the turn may run, and waiters, which get the turn handed to them. A
/// reader shares its turn with the readers next in line; everything else has it alone.
///
/// Invariant: while the queue is free and its line is not empty, a block is first, no waiter is in the line, and a
/// drain is on its way to the pool. So there is no state in which a waiter needs the pool to get on: the thread that
/// gives the turn back hands it to the first waiter, together with the blocks that stand before it.
///
/// Threading: callable from any thread; one leaf mutex, with which nothing is called.
class QueueCore : public std::enable_shared_from_this<QueueCore> {
public:
    static constexpr int blocksPerDrain = 64;  ///< then a drain gives its worker to others

    QueueCore(Dispatcher& dispatcher, std::string label, Priority priority);
    ~QueueCore();
    QueueCore(const QueueCore&) = delete;
    QueueCore& operator=(const QueueCore&) = delete;

    void enter(QueueAccess access);  ///< returns with the turn; aborts when this thread has it already
    void leave(QueueAccess access);
    void async(Work work);
    void after(std::chrono::nanoseconds delay, std::chrono::nanoseconds leeway, Work work);
    void close();
    /// The queue is destroyed: closes it. On the queue itself `core` lives until the turn ends, and blocks in line go.
    static void release(std::shared_ptr<QueueCore> core);

    [[nodiscard]] bool held() const;  ///< by the calling thread
    [[nodiscard]] bool heldAlone() const;
    void assertHeld() const;
    void assertHeldAlone() const;

    [[nodiscard]] const std::string& label() const { return _label; }
    [[nodiscard]] Dispatcher& dispatcher() const { return _dispatcher; }

private:
    struct Waiter;
    struct Item {
        Work work;
        Waiter* waiter = nullptr;  ///< instead of work
    };
    struct Delayed {
        Work work;
        std::optional<Dispatcher::TimerId> timer;
    };
    using DelayedWork = std::map<std::uint64_t, Delayed>;

    /// What is to be done, without the lock, once the turn has been passed on.
    struct Next {
        Waiter* granted = nullptr;  ///< a chain
        std::shared_ptr<QueueCore> toDrain;
    };

    [[nodiscard]] bool _isFree(QueueAccess access) const ORX_REQUIRES(_mutex);
    void _take(QueueAccess access) ORX_REQUIRES(_mutex);
    [[nodiscard]] Next _passOn() ORX_REQUIRES(_mutex);
    [[nodiscard]] Waiter* _firstWaiter() ORX_REQUIRES(_mutex);
    [[nodiscard]] Work _popWork() ORX_REQUIRES(_mutex);

    void _waitForTurn(QueueAccess access);
    [[nodiscard]] bool _stood(Waiter& self);
    [[nodiscard]] Work _nextBefore(Waiter& self);
    void _drain();
    [[nodiscard]] bool _beginDrain();
    [[nodiscard]] Work _nextBlock();
    void _run(Work work) noexcept;
    static void _follow(Next next);
    [[nodiscard]] bool _rememberTimer(std::uint64_t id, Dispatcher::TimerId timer);
    void _becameDue(std::uint64_t id);
    [[nodiscard]] DelayedWork _stopTaking();
    void _abandon(std::shared_ptr<QueueCore> self);

    // Constant after construction.
    Dispatcher& _dispatcher;
    const std::string _label;
    const Priority _priority;

    mutable Mutex _mutex;
    std::deque<Item> _line ORX_GUARDED_BY(_mutex);
    int _turns ORX_GUARDED_BY(_mutex) = 0;            ///< the number of readers, or `alone`
    std::size_t _waiters ORX_GUARDED_BY(_mutex) = 0;  ///< those in the line
    bool _drainSubmitted ORX_GUARDED_BY(_mutex) = false;
    bool _closed ORX_GUARDED_BY(_mutex) = false;
    DelayedWork _delayed ORX_GUARDED_BY(_mutex);
    std::uint64_t _lastDelayed ORX_GUARDED_BY(_mutex) = 0;
    std::shared_ptr<QueueCore> _self ORX_GUARDED_BY(_mutex);  ///< set while the last turn outlives the queue

    static constexpr int alone = -1;
};

/// For a dispatcher that runs other work inside a wait: sets aside what the thread holds, since that work is not on
/// those queues.
class HeldQueuesAside {
public:
    HeldQueuesAside();
    ~HeldQueuesAside();
    HeldQueuesAside(const HeldQueuesAside&) = delete;
    HeldQueuesAside& operator=(const HeldQueuesAside&) = delete;

private:
    const QueueTurn* const _aside;
};

/// `delay` from now; none when that is beyond what a time can hold.
std::optional<MonotonicTime> timeAfter(const Dispatcher& dispatcher, std::chrono::nanoseconds delay);

}  // namespace orvex::platform
