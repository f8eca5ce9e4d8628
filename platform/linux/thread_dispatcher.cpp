#include "platform/linux/thread_dispatcher.h"

#include <algorithm>
#include <thread>

#include "platform/linux/steady_time.h"

namespace orvex::platform {

namespace {

class ThreadWaitPoint final : public WaitPoint {
public:
    explicit ThreadWaitPoint(WorkerPool& pool) : _pool(pool) {}

    void signal() override {
        const MutexLock lock(_mutex);
        _signalled = true;
        _changed.notify_one();  // under the lock: the waiter may destroy this as soon as it has it
    }

    bool wait(std::optional<MonotonicTime> deadline) override {
        if (_take()) return true;
        const WorkerPool::Blocked replaced(_pool);
        std::unique_lock lock(_mutex.native());
        const auto isSignalled = [this]() ORX_NO_THREAD_SAFETY_ANALYSIS { return std::exchange(_signalled, false); };
        if (deadline) return _changed.wait_until(lock, asSteady(*deadline), isSignalled);
        _changed.wait(lock, isSignalled);
        return true;
    }

private:
    bool _take() {
        const MutexLock lock(_mutex);
        return std::exchange(_signalled, false);
    }

    WorkerPool& _pool;
    Mutex _mutex;
    std::condition_variable _changed;
    bool _signalled ORX_GUARDED_BY(_mutex) = false;
};

std::size_t workersOf(const ThreadDispatcher::Options& options) {
    return options.workers > 0 ? options.workers : std::max(2U, std::thread::hardware_concurrency());
}

}  // namespace

ThreadDispatcher::ThreadDispatcher(Options options) : _pool({.limit = workersOf(options), .spares = options.spares}) {}

ThreadDispatcher::~ThreadDispatcher() {
    _timers.stop();
    _pool.stop();
    while (_dropMain()) continue;
}

/// False when there was nothing to drop. What is dropped may submit more.
bool ThreadDispatcher::_dropMain() {
    std::deque<Work> dropped;
    const MutexLock lock(_mutex);
    dropped.swap(_main);
    return !dropped.empty();
}

void ThreadDispatcher::start() {
    _pool.start();
    _timers.start();
}

int ThreadDispatcher::runMain() {
    while (Work work = _nextMain()) work();
    return _takeStatus().value_or(0);
}

/// Sleeps until there is work; none after `stopMain`.
Work ThreadDispatcher::_nextMain() ORX_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(_mutex.native());
    _mainChanged.wait(lock, [this]() ORX_NO_THREAD_SAFETY_ANALYSIS { return _status || !_main.empty(); });
    if (_status) return {};
    Work work = std::move(_main.front());
    _main.pop_front();
    return work;
}

std::optional<int> ThreadDispatcher::_takeStatus() {
    const MutexLock lock(_mutex);
    return std::exchange(_status, std::nullopt);
}

void ThreadDispatcher::stopMain(int status) {
    const MutexLock lock(_mutex);
    if (!_status) _status = status;
    _mainChanged.notify_one();
}

void ThreadDispatcher::submitMain(Work work) {
    if (!work) return;
    const MutexLock lock(_mutex);
    _main.push_back(std::move(work));
    _mainChanged.notify_one();
}

MonotonicTime ThreadDispatcher::now() const { return steadyNow(); }

WallTime ThreadDispatcher::wallNow() const { return WallTime(std::chrono::system_clock::now().time_since_epoch()); }

void ThreadDispatcher::submit(Priority priority, Work work) {
    if (work) _pool.submit(priority, std::move(work));
}

Dispatcher::TimerId ThreadDispatcher::schedule(MonotonicTime due, std::chrono::nanoseconds leeway, Work fire) {
    return _timers.schedule(due, leeway, std::move(fire));
}

void ThreadDispatcher::unschedule(TimerId timer) { _timers.unschedule(timer); }

std::unique_ptr<WaitPoint> ThreadDispatcher::makeWaitPoint() { return std::make_unique<ThreadWaitPoint>(_pool); }

}  // namespace orvex::platform
