#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <list>
#include <thread>

#include "platform/dispatch.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// The threads that run what is submitted: as many as there is work for, at most `limit` of them running at a time.
/// A thread that blocks (see `Blocked`) does not count as running, so another takes its place, up to `spares` more
/// threads than `limit`. Beyond that work waits until one of the blocked is through.
///
/// Threads are started when there is work for them, and none before `start`; up to `limit` stay when it is done,
/// asleep.
///
/// Threading: callable from any thread, but for `stop`, which is not for a thread of the pool.
class WorkerPool {
public:
    struct Options {
        std::size_t limit;
        std::size_t spares;
    };

    explicit WorkerPool(Options options) : _options(options) {}
    ~WorkerPool() { stop(); }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void submit(Priority priority, Work work);
    void start();
    /// Waits for what runs, and destroys the rest unrun; so too what is submitted later.
    void stop();

    /// While one exists, the calling thread is replaced, if it is one of the pool.
    class Blocked {
    public:
        explicit Blocked(WorkerPool& pool);
        ~Blocked();
        Blocked(const Blocked&) = delete;
        Blocked& operator=(const Blocked&) = delete;

    private:
        WorkerPool* const _pool;  ///< none for a thread of no pool or another
    };

private:
    using Threads = std::list<std::thread>;
    using Pending = std::array<std::deque<Work>, 3>;

    [[nodiscard]] bool _callOne() ORX_REQUIRES(_mutex);
    [[nodiscard]] bool _mayRun() const ORX_REQUIRES(_mutex);
    [[nodiscard]] bool _hasPending() const ORX_REQUIRES(_mutex);
    [[nodiscard]] Work _takePending() ORX_REQUIRES(_mutex);
    void _startThread() ORX_REQUIRES(_mutex);
    [[nodiscard]] Work _nextWork();
    void _serve(Threads::iterator self);
    void _leave(Threads::iterator self);
    void _willBlock();
    void _didBlock();

    // Constant after construction.
    const Options _options;

    mutable Mutex _mutex;
    std::condition_variable _woken;
    std::condition_variable _left;
    Pending _pending ORX_GUARDED_BY(_mutex);          ///< by priority
    std::size_t _running ORX_GUARDED_BY(_mutex) = 0;  ///< threads neither asleep nor blocked
    std::size_t _asleep ORX_GUARDED_BY(_mutex) = 0;
    std::size_t _wakeUps ORX_GUARDED_BY(_mutex) = 0;  ///< given to sleepers, which count as running from then on
    Threads _threads ORX_GUARDED_BY(_mutex);
    Threads _ended ORX_GUARDED_BY(_mutex);  ///< to be joined by the next that ends, or by `stop`
    bool _started ORX_GUARDED_BY(_mutex) = false;
    bool _stopping ORX_GUARDED_BY(_mutex) = false;
};

}  // namespace orvex::platform
