#include "platform/linux/worker_pool.h"

#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace orvex::platform {

namespace {

thread_local WorkerPool* poolOfThisThread = nullptr;

void run(Work& work) noexcept {
    work();
    work = nullptr;
}

}  // namespace

WorkerPool::Blocked::Blocked(WorkerPool& pool) : _pool(poolOfThisThread == &pool ? &pool : nullptr) {
    if (_pool != nullptr) _pool->_willBlock();
}

WorkerPool::Blocked::~Blocked() {
    if (_pool != nullptr) _pool->_didBlock();
}

void WorkerPool::submit(Priority priority, Work work) {
    bool sleeperCalled = false;
    {
        const MutexLock lock(_mutex);
        if (_stopping) return;  // destroyed by the caller, after the lock
        _pending[static_cast<std::size_t>(priority)].push_back(std::move(work));
        sleeperCalled = _callOne();
    }
    // Without the lock: it is the first thing that who wakes up wants.
    if (sleeperCalled) _woken.notify_one();
}

void WorkerPool::start() {
    const MutexLock lock(_mutex);
    _started = true;
    for (std::size_t count = 0; count < _options.limit; ++count) {
        if (_callOne()) _woken.notify_one();
    }
}

void WorkerPool::stop() {
    Pending unrun;
    Threads ended;
    {
        const MutexLock lock(_mutex);
        _stopping = true;
        _woken.notify_all();
    }
    {
        std::unique_lock lock(_mutex.native());
        _left.wait(lock, [this]() ORX_NO_THREAD_SAFETY_ANALYSIS { return _threads.empty(); });
    }
    {
        const MutexLock lock(_mutex);
        ended.swap(_ended);
        unrun.swap(_pending);
    }
    for (auto& thread : ended) thread.join();
}

bool WorkerPool::_hasPending() const {
    for (const auto& works : _pending) {
        if (!works.empty()) return true;
    }
    return false;
}

Work WorkerPool::_takePending() {
    for (auto& works : _pending) {
        if (works.empty()) continue;
        Work work = std::move(works.front());
        works.pop_front();
        return work;
    }
    return {};
}

/// Sees to it that a thread comes for a piece of work, if one is wanting and may run. True: it is one that sleeps, and
/// the caller notifies it.
bool WorkerPool::_callOne() {
    if (!_started || _stopping || _running >= _options.limit || !_hasPending()) return false;
    if (_asleep == 0) {
        _startThread();
        return false;
    }
    --_asleep;
    ++_running;
    ++_wakeUps;
    return true;
}

void WorkerPool::_startThread() {
    if (_threads.size() >= _options.limit + _options.spares) return;
    const auto self = _threads.emplace(_threads.end());
    try {
        *self = std::thread([this, self] { _serve(self); });
        ++_running;
    } catch (const std::system_error& error) {
        _threads.erase(self);
        if (!_threads.empty()) return;  // those that there are will come to it
        std::fprintf(stderr, "cannot start the first worker thread: %s\n", error.what());
        std::abort();
    }
}

void WorkerPool::_serve(Threads::iterator self) {
    pthread_setname_np(pthread_self(), "orvex-worker");
    poolOfThisThread = this;
    while (Work work = _nextWork()) run(work);
    _leave(self);
}

/// Sleeps until there is work for this thread; none when the thread is to end.
Work WorkerPool::_nextWork() ORX_NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock lock(_mutex.native());
    for (;;) {
        // More may run than should, when blocked ones have come back: the surplus stands down.
        if (!_stopping && _running <= _options.limit) {
            if (Work work = _takePending()) return work;
        }
        --_running;
        if (_stopping || _asleep >= _options.limit) return {};
        ++_asleep;
        _woken.wait(lock, [this]() ORX_NO_THREAD_SAFETY_ANALYSIS { return _wakeUps > 0 || _stopping; });
        if (_wakeUps == 0) return {};
        --_wakeUps;
    }
}

void WorkerPool::_leave(Threads::iterator self) {
    Threads earlier;
    {
        const MutexLock lock(_mutex);
        earlier.swap(_ended);
        _ended.splice(_ended.end(), _threads, self);
        if (_threads.empty()) _left.notify_all();
    }
    for (auto& thread : earlier) thread.join();
}

void WorkerPool::_willBlock() {
    bool sleeperCalled = false;
    {
        const MutexLock lock(_mutex);
        --_running;
        sleeperCalled = _callOne();
    }
    if (sleeperCalled) _woken.notify_one();
}

void WorkerPool::_didBlock() {
    const MutexLock lock(_mutex);
    ++_running;
}

}  // namespace orvex::platform
