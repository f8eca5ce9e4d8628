#include "platform/queue_core.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

// The queue of a busy client sees an `async` and a `sync` in turn all day, from threads that are awake already. So the
// line is not bound to the pool: whoever has the turn runs it. A `sync` on a free queue is two short locks; a `sync`
// behind blocks that nobody has begun runs them itself, and the drain that was submitted for them finds nothing to do;
// a `sync` behind a running item sleeps, and the thread that ends that item hands over the turn by name. Handing over
// rather than waking all leaves no room for overtaking: the order of the line is the order of the turns.

namespace orvex::platform {

namespace {

thread_local const QueueTurn* innermostTurn = nullptr;

const char* quotedOrNone(const std::string* label) { return label == nullptr ? "no queue" : label->c_str(); }

}  // namespace

struct QueueCore::Waiter {
    enum class Grant : std::uint8_t {
        none,
        turn,  ///< it has left the line and has its turn
        line,  ///< it has the turn alone, for the blocks before it
    };

    const QueueAccess access;
    const std::unique_ptr<WaitPoint> point;
    Grant grant = Grant::none;
    Waiter* next = nullptr;  ///< granted together with this one
};

QueueTurn::QueueTurn(QueueCore& core, QueueAccess access) : _core(core), _access(access), _givesBack(true) {
    _core.enter(access);
    _outer = std::exchange(innermostTurn, this);
}

QueueTurn::QueueTurn(QueueCore& core, Granted)
    : _core(core),
      _access(QueueAccess::barrier),
      _givesBack(false),
      _outer(std::exchange(innermostTurn, this)) {}

QueueTurn::~QueueTurn() {
    innermostTurn = _outer;
    if (_givesBack) _core.leave(_access);
}

HeldQueuesAside::HeldQueuesAside() : _aside(std::exchange(innermostTurn, nullptr)) {}
HeldQueuesAside::~HeldQueuesAside() { innermostTurn = _aside; }

QueueCore::QueueCore(Dispatcher& dispatcher, std::string label, Priority priority)
    : _dispatcher(dispatcher),
      _label(std::move(label)),
      _priority(priority) {}

QueueCore::~QueueCore() = default;

void QueueCore::enter(QueueAccess access) {
    if (held()) {
        std::fprintf(stderr, "deadlock: sync on the queue %s from the queue %s, on a thread that holds it already\n",
                     _label.c_str(), innermostTurn->_core._label.c_str());
        std::abort();
    }
    {
        const MutexLock lock(_mutex);
        if (_line.empty() && _isFree(access)) return _take(access);
    }
    _waitForTurn(access);
}

void QueueCore::leave(QueueAccess access) {
    Next next;
    std::shared_ptr<QueueCore> last;  // gives this object up after the lock
    {
        const MutexLock lock(_mutex);
        _turns = access == QueueAccess::barrier ? 0 : _turns - 1;
        if (_line.empty() && !_self) return;
        if (!_line.empty()) next = _passOn();
        if (_self && _turns == 0 && _line.empty()) last = std::move(_self);
    }
    _follow(std::move(next));
}

bool QueueCore::_isFree(QueueAccess access) const { return _turns == 0 || (access == QueueAccess::read && _turns > 0); }

void QueueCore::_take(QueueAccess access) { _turns = access == QueueAccess::barrier ? alone : _turns + 1; }

/// Gives the turn to whoever is first in line, as far as it is free.
QueueCore::Next QueueCore::_passOn() {
    Next next;
    Waiter** last = &next.granted;
    while (!_line.empty() && _line.front().waiter != nullptr && _isFree(_line.front().waiter->access)) {
        Waiter& waiter = *_line.front().waiter;
        _line.pop_front();
        --_waiters;
        _take(waiter.access);
        waiter.grant = Waiter::Grant::turn;
        *last = &waiter;
        last = &waiter.next;
    }
    if (_line.empty() || _turns != 0) return next;
    if (Waiter* waiter = _firstWaiter()) {
        _turns = alone;
        waiter->grant = Waiter::Grant::line;
        next.granted = waiter;
    } else if (!_drainSubmitted) {
        _drainSubmitted = true;
        next.toDrain = shared_from_this();
    }
    return next;
}

QueueCore::Waiter* QueueCore::_firstWaiter() {
    if (_waiters == 0) return nullptr;
    return std::ranges::find_if(_line, [](const Item& item) { return item.waiter != nullptr; })->waiter;
}

Work QueueCore::_popWork() {
    Work work = std::move(_line.front().work);
    _line.pop_front();
    return work;
}

void QueueCore::_follow(Next next) {
    for (Waiter* waiter = next.granted; waiter != nullptr;) {
        Waiter* const following = waiter->next;  // once signalled, it is gone
        waiter->point->signal();
        waiter = following;
    }
    if (!next.toDrain) return;
    QueueCore& core = *next.toDrain;
    core._dispatcher.submit(core._priority, [self = std::move(next.toDrain)] { self->_drain(); });
}

void QueueCore::_waitForTurn(QueueAccess access) {
    Waiter self{.access = access, .point = _dispatcher.makeWaitPoint()};
    if (!_stood(self)) (void)self.point->wait({});
    if (self.grant == Waiter::Grant::turn) return;
    while (Work work = _nextBefore(self)) _run(std::move(work));
}

/// Puts `self` into the line; true when it need not wait.
bool QueueCore::_stood(Waiter& self) {
    const MutexLock lock(_mutex);
    if (_line.empty() && _isFree(self.access)) {
        _take(self.access);
        self.grant = Waiter::Grant::turn;
        return true;
    }
    _line.push_back({.work = {}, .waiter = &self});
    ++_waiters;
    if (_turns != 0) return false;
    _turns = alone;
    self.grant = Waiter::Grant::line;
    return true;
}

/// The next block for `self`, which is the first waiter and has the turn; none when `self` is next, and on its turn.
Work QueueCore::_nextBefore(Waiter& self) {
    Next next;
    {
        const MutexLock lock(_mutex);
        if (_line.front().waiter == nullptr) return _popWork();
        _line.pop_front();
        --_waiters;
        _turns = 0;
        _take(self.access);
        if (self.access == QueueAccess::read) next = _passOn();
    }
    _follow(std::move(next));
    return {};
}

void QueueCore::_run(Work work) noexcept {
    const QueueTurn turn(*this, QueueTurn::Granted{});
    work();
    work = nullptr;  // what it holds is let go on the queue too
}

void QueueCore::_drain() {
    if (!_beginDrain()) return;
    for (int count = 0; count < blocksPerDrain; ++count) {
        Work work = _nextBlock();
        if (!work) break;
        _run(std::move(work));
    }
    leave(QueueAccess::barrier);
}

bool QueueCore::_beginDrain() {
    const MutexLock lock(_mutex);
    _drainSubmitted = false;
    if (_turns != 0 || _line.empty()) return false;
    _turns = alone;
    return true;
}

Work QueueCore::_nextBlock() {
    const MutexLock lock(_mutex);
    if (_line.empty() || _line.front().waiter != nullptr) return {};
    return _popWork();
}

void QueueCore::async(Work work) {
    if (!work) return;
    Next next;
    {
        const MutexLock lock(_mutex);
        if (_closed) return;
        _line.push_back({.work = std::move(work)});
        if (_turns == 0) next = _passOn();
    }
    _follow(std::move(next));
}

void QueueCore::after(std::chrono::nanoseconds delay, std::chrono::nanoseconds leeway, Work work) {
    const auto due = timeAfter(_dispatcher, delay);
    std::uint64_t id = 0;
    {
        const MutexLock lock(_mutex);
        if (_closed || !due) return;
        id = ++_lastDelayed;
        _delayed[id].work = std::move(work);
    }
    const auto timer = _dispatcher.schedule(*due, leeway, [weak = weak_from_this(), id] {
        if (auto core = weak.lock()) core->_becameDue(id);
    });
    if (!_rememberTimer(id, timer)) _dispatcher.unschedule(timer);
}

/// False when the work is not waiting any more: it has become due, or the queue was closed.
bool QueueCore::_rememberTimer(std::uint64_t id, Dispatcher::TimerId timer) {
    const MutexLock lock(_mutex);
    const auto found = _delayed.find(id);
    if (found == _delayed.end()) return false;
    found->second.timer = timer;
    return true;
}

void QueueCore::_becameDue(std::uint64_t id) {
    DelayedWork::node_type due;
    {
        const MutexLock lock(_mutex);
        due = _delayed.extract(id);
    }
    if (due) async(std::move(due.mapped().work));
}

QueueCore::DelayedWork QueueCore::_stopTaking() {
    const MutexLock lock(_mutex);
    _closed = true;
    return std::exchange(_delayed, {});
}

void QueueCore::close() {
    for (auto& [id, delayed] : _stopTaking()) {
        if (delayed.timer) _dispatcher.unschedule(*delayed.timer);
    }
    if (held()) return;
    const QueueTurn afterEverything(*this, QueueAccess::barrier);
}

void QueueCore::release(std::shared_ptr<QueueCore> core) {
    QueueCore& queue = *core;
    queue.close();
    if (queue.held()) queue._abandon(std::move(core));
}

void QueueCore::_abandon(std::shared_ptr<QueueCore> self) {
    std::deque<Item> dropped;
    const MutexLock lock(_mutex);
    for (auto& item : _line) {
        if (item.waiter == nullptr) dropped.push_back(std::move(item));
    }
    std::erase_if(_line, [](const Item& item) { return item.waiter == nullptr; });
    _self = std::move(self);
}

bool QueueCore::held() const {
    for (const QueueTurn* turn = innermostTurn; turn != nullptr; turn = turn->_outer) {
        if (&turn->_core == this) return true;
    }
    return false;
}

bool QueueCore::heldAlone() const {
    for (const QueueTurn* turn = innermostTurn; turn != nullptr; turn = turn->_outer) {
        if (&turn->_core == this) return turn->_access == QueueAccess::barrier;
    }
    return false;
}

void QueueCore::assertHeld() const {
    if (held()) return;
    std::fprintf(stderr, "not on the queue %s, but on %s\n", _label.c_str(),
                 quotedOrNone(innermostTurn == nullptr ? nullptr : &innermostTurn->_core._label));
    std::abort();
}

void QueueCore::assertHeldAlone() const {
    assertHeld();
    if (heldAlone()) return;
    std::fprintf(stderr, "on the queue %s, but not in a barrier\n", _label.c_str());
    std::abort();
}

std::optional<MonotonicTime> timeAfter(const Dispatcher& dispatcher, std::chrono::nanoseconds delay) {
    const auto now = dispatcher.now();
    if (delay.count() <= 0) return now;
    if (delay > MonotonicTime::max() - now) return {};
    return now + delay;
}

}  // namespace orvex::platform
