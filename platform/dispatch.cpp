#include "platform/dispatch.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <vector>

#include "platform/queue_core.h"

namespace orvex::platform {

SerialQueue::SerialQueue(Dispatcher& dispatcher, std::string label, Priority priority)
    : _core(std::make_shared<QueueCore>(dispatcher, std::move(label), priority)) {}
SerialQueue::~SerialQueue() { QueueCore::release(std::move(_core)); }

void SerialQueue::async(Work work) { _core->async(std::move(work)); }
void SerialQueue::after(std::chrono::nanoseconds delay, Work work, std::chrono::nanoseconds leeway) {
    _core->after(delay, leeway, std::move(work));
}
void SerialQueue::close() { _core->close(); }
void SerialQueue::assertCurrent() const { _core->assertHeld(); }
bool SerialQueue::isCurrent() const { return _core->held(); }
const std::string& SerialQueue::label() const { return _core->label(); }
Dispatcher& SerialQueue::dispatcher() const { return _core->dispatcher(); }

ConcurrentQueue::ConcurrentQueue(Dispatcher& dispatcher, std::string label, Priority priority)
    : _core(std::make_shared<QueueCore>(dispatcher, std::move(label), priority)) {}
ConcurrentQueue::~ConcurrentQueue() { QueueCore::release(std::move(_core)); }

void ConcurrentQueue::barrierAsync(Work work) { _core->async(std::move(work)); }
void ConcurrentQueue::close() { _core->close(); }
void ConcurrentQueue::assertCurrent() const { _core->assertHeld(); }
void ConcurrentQueue::assertBarrier() const { _core->assertHeldAlone(); }
bool ConcurrentQueue::isCurrent() const { return _core->held(); }
const std::string& ConcurrentQueue::label() const { return _core->label(); }
Dispatcher& ConcurrentQueue::dispatcher() const { return _core->dispatcher(); }

void GlobalQueue::after(std::chrono::nanoseconds delay, Work work, std::chrono::nanoseconds leeway) const {
    const auto due = timeAfter(_dispatcher, delay);
    if (!due) return;
    _dispatcher.schedule(*due, leeway,
                         [&dispatcher = _dispatcher, priority = _priority, work = std::move(work)] mutable {
                             dispatcher.submit(priority, std::move(work));
                         });
}

void MainQueue::after(std::chrono::nanoseconds delay, Work work, std::chrono::nanoseconds leeway) const {
    const auto due = timeAfter(_dispatcher, delay);
    if (!due) return;
    _dispatcher.schedule(*due, leeway, [&dispatcher = _dispatcher, work = std::move(work)] mutable {
        dispatcher.submitMain(std::move(work));
    });
}

/// What a timer's queued steps share with it. Each arming has a generation of its own; a step of an earlier one finds
/// itself out of date and does nothing.
struct TimerState : std::enable_shared_from_this<TimerState> {
    TimerState(Dispatcher& withDispatcher, Priority withPriority, std::shared_ptr<QueueCore> onQueue)
        : dispatcher(withDispatcher),
          priority(withPriority),
          queue(std::move(onQueue)) {}

    void arm(std::optional<MonotonicTime> due, std::chrono::nanoseconds leeway, Work block);
    void becameDue(std::uint64_t ofGeneration);
    void run(std::uint64_t ofGeneration);
    /// Makes `block` the armed one, or none; returns the new generation and takes what was armed into `earlier`.
    std::uint64_t replace(Work block, Work& earlier, std::optional<Dispatcher::TimerId>& earlierTimer);
    [[nodiscard]] bool rememberTimer(std::uint64_t ofGeneration, Dispatcher::TimerId id);
    [[nodiscard]] Work takeWork(std::uint64_t ofGeneration);

    Dispatcher& dispatcher;
    const Priority priority;
    const std::shared_ptr<QueueCore> queue;  ///< none: the pool

    mutable Mutex mutex;
    std::uint64_t generation ORX_GUARDED_BY(mutex) = 0;
    Work work ORX_GUARDED_BY(mutex);  ///< empty while unarmed
    std::optional<Dispatcher::TimerId> timer ORX_GUARDED_BY(mutex);
};

std::uint64_t TimerState::replace(Work block, Work& earlier, std::optional<Dispatcher::TimerId>& earlierTimer) {
    const MutexLock lock(mutex);
    earlier = std::exchange(work, std::move(block));
    earlierTimer = std::exchange(timer, std::nullopt);
    return ++generation;
}

void TimerState::arm(std::optional<MonotonicTime> due, std::chrono::nanoseconds leeway, Work block) {
    Work earlier;
    std::optional<Dispatcher::TimerId> earlierTimer;
    const bool armed = static_cast<bool>(block);
    const auto current = replace(std::move(block), earlier, earlierTimer);
    if (earlierTimer) dispatcher.unschedule(*earlierTimer);
    if (!armed || !due) return;
    const auto id = dispatcher.schedule(*due, leeway, [weak = weak_from_this(), current] {
        if (auto state = weak.lock()) state->becameDue(current);
    });
    if (!rememberTimer(current, id)) dispatcher.unschedule(id);
}

bool TimerState::rememberTimer(std::uint64_t ofGeneration, Dispatcher::TimerId id) {
    const MutexLock lock(mutex);
    if (generation != ofGeneration) return false;
    timer = id;
    return true;
}

void TimerState::becameDue(std::uint64_t ofGeneration) {
    auto step = [weak = weak_from_this(), ofGeneration] {
        if (auto state = weak.lock()) state->run(ofGeneration);
    };
    queue ? queue->async(std::move(step)) : dispatcher.submit(priority, std::move(step));
}

void TimerState::run(std::uint64_t ofGeneration) {
    Work block = takeWork(ofGeneration);
    if (block) block();
}

Work TimerState::takeWork(std::uint64_t ofGeneration) {
    const MutexLock lock(mutex);
    if (generation != ofGeneration) return {};
    timer.reset();
    return std::exchange(work, Work());
}

Timer::Timer(SerialQueue& queue)
    : _state(std::make_shared<TimerState>(queue.dispatcher(), Priority::standard, queue._core)) {}
Timer::Timer(Dispatcher& dispatcher, Priority priority)
    : _state(std::make_shared<TimerState>(dispatcher, priority, nullptr)) {}
Timer::~Timer() { cancel(); }

void Timer::armAt(MonotonicTime due, Work work, std::chrono::nanoseconds leeway) {
    _state->arm(due, leeway, std::move(work));
}
void Timer::armAfter(std::chrono::nanoseconds delay, Work work, std::chrono::nanoseconds leeway) {
    _state->arm(timeAfter(_state->dispatcher, delay), leeway, std::move(work));
}
void Timer::cancel() { _state->arm({}, {}, {}); }
bool Timer::armed() const {
    const MutexLock lock(_state->mutex);
    return static_cast<bool>(_state->work);
}

namespace {

/// Those who wait for a semaphore or a group. A wait that ran out and a grant may cross: the list says which was first.
using SharedWaitPoint = std::shared_ptr<WaitPoint>;
using WaitingList = std::list<SharedWaitPoint>;

/// Takes `point` out; false when it has been granted.
bool withdraw(WaitingList& waiting, const SharedWaitPoint& point) { return std::erase(waiting, point) > 0; }

}  // namespace

struct Semaphore::State {
    [[nodiscard]] bool takeOrStand(const SharedWaitPoint& point);
    [[nodiscard]] bool takeNow();
    [[nodiscard]] bool giveUp(const SharedWaitPoint& point);
    [[nodiscard]] SharedWaitPoint grant();

    Dispatcher& dispatcher;
    Mutex mutex;
    std::size_t count ORX_GUARDED_BY(mutex);
    WaitingList waiting ORX_GUARDED_BY(mutex);  ///< empty unless the count is zero
};

bool Semaphore::State::takeNow() {
    const MutexLock lock(mutex);
    if (count == 0) return false;
    --count;
    return true;
}

bool Semaphore::State::takeOrStand(const SharedWaitPoint& point) {
    const MutexLock lock(mutex);
    if (count == 0) {
        waiting.push_back(point);
        return false;
    }
    --count;
    return true;
}

bool Semaphore::State::giveUp(const SharedWaitPoint& point) {
    const MutexLock lock(mutex);
    return withdraw(waiting, point);
}

SharedWaitPoint Semaphore::State::grant() {
    const MutexLock lock(mutex);
    if (waiting.empty()) {
        ++count;
        return nullptr;
    }
    auto point = std::move(waiting.front());
    waiting.pop_front();
    return point;
}

Semaphore::Semaphore(Dispatcher& dispatcher, std::size_t count)
    : _state(new State{.dispatcher = dispatcher, .mutex = {}, .count = count, .waiting = {}}) {}
Semaphore::~Semaphore() = default;

void Semaphore::signal() {
    if (const auto point = _state->grant()) point->signal();  // the semaphore may be gone by now
}

bool Semaphore::wait(std::chrono::nanoseconds timeout) { return waitUntil(timeAfter(_state->dispatcher, timeout)); }

bool Semaphore::waitUntil(std::optional<MonotonicTime> deadline) {
    if (_state->takeNow()) return true;
    if (deadline && *deadline <= _state->dispatcher.now()) return false;
    const SharedWaitPoint point = _state->dispatcher.makeWaitPoint();
    if (_state->takeOrStand(point)) return true;
    return point->wait(deadline) || !_state->giveUp(point);
}

struct TaskGroup::State {
    struct Notice {
        std::shared_ptr<QueueCore> queue;
        Work work;
    };
    /// What waits for the count to be zero.
    struct Ended {
        WaitingList waiting;
        std::vector<Notice> notices;
    };

    [[nodiscard]] Ended leave();
    [[nodiscard]] bool stand(const SharedWaitPoint& point);
    [[nodiscard]] bool giveUp(const SharedWaitPoint& point);
    [[nodiscard]] bool keep(Notice& notice);

    Dispatcher& dispatcher;
    Mutex mutex;
    std::size_t count ORX_GUARDED_BY(mutex) = 0;
    Ended atEnd ORX_GUARDED_BY(mutex);
};

TaskGroup::State::Ended TaskGroup::State::leave() {
    const MutexLock lock(mutex);
    if (count == 0) {
        std::fputs("a task group was left more often than it was entered\n", stderr);
        std::abort();
    }
    return --count == 0 ? std::exchange(atEnd, {}) : Ended{};
}

/// False when there is nothing to wait for.
bool TaskGroup::State::stand(const SharedWaitPoint& point) {
    const MutexLock lock(mutex);
    if (count == 0) return false;
    atEnd.waiting.push_back(point);
    return true;
}

bool TaskGroup::State::giveUp(const SharedWaitPoint& point) {
    const MutexLock lock(mutex);
    return withdraw(atEnd.waiting, point);
}

/// False when there is nothing to wait for.
bool TaskGroup::State::keep(Notice& notice) {
    const MutexLock lock(mutex);
    if (count == 0) return false;
    atEnd.notices.push_back(std::move(notice));
    return true;
}

TaskGroup::TaskGroup(Dispatcher& dispatcher) : _state(new State{.dispatcher = dispatcher, .mutex = {}, .atEnd = {}}) {}
TaskGroup::~TaskGroup() = default;

void TaskGroup::enter() {
    const MutexLock lock(_state->mutex);
    ++_state->count;
}

void TaskGroup::leave() {
    auto ended = _state->leave();  // the group may be gone by now
    for (const auto& point : ended.waiting) point->signal();
    for (auto& notice : ended.notices) notice.queue->async(std::move(notice.work));
}

bool TaskGroup::wait(std::optional<std::chrono::nanoseconds> timeout) {
    const auto deadline = timeout ? timeAfter(_state->dispatcher, *timeout) : std::nullopt;
    const SharedWaitPoint point = _state->dispatcher.makeWaitPoint();
    if (!_state->stand(point)) return true;
    return point->wait(deadline) || !_state->giveUp(point);
}

void TaskGroup::notify(SerialQueue& queue, Work work) {
    State::Notice notice{.queue = queue._core, .work = std::move(work)};
    if (!_state->keep(notice)) notice.queue->async(std::move(notice.work));
}

}  // namespace orvex::platform
