#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <optional>

#include "platform/dispatch.h"
#include "platform/linux/timer_thread.h"
#include "platform/linux/worker_pool.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// The dispatcher of the daemon: a pool of threads, a thread for timers, and the main thread, on CLOCK_MONOTONIC and
/// CLOCK_REALTIME.
///
///     made ──start──▶ running ──destructor──▶ gone
///
/// Threads exist only once it runs: what is submitted or scheduled before waits. A `sync` on a queue works before,
/// since it needs none. The destructor waits for what runs and destroys the rest unrun; whatever uses the dispatcher
/// is gone by then, or at least asks nothing of it any more.
class ThreadDispatcher final : public Dispatcher {
public:
    struct Options {
        std::size_t workers = 0;   ///< that run at a time; 0: one a processor, but two at least
        std::size_t spares = 256;  ///< that stand in for blocked ones, at most
    };

    ThreadDispatcher() : ThreadDispatcher(Options{}) {}
    explicit ThreadDispatcher(Options options);
    ~ThreadDispatcher() override;
    ThreadDispatcher(const ThreadDispatcher&) = delete;
    ThreadDispatcher& operator=(const ThreadDispatcher&) = delete;

    void start();

    /// Runs the main queue's work on the calling thread until `stopMain`; returns the status given there. Work that is
    /// behind stays for the next call.
    [[nodiscard]] int runMain();
    void stopMain(int status);  ///< from any thread; of several the first counts

    [[nodiscard]] MonotonicTime now() const override;
    [[nodiscard]] WallTime wallNow() const override;
    void submit(Priority priority, Work work) override;
    TimerId schedule(MonotonicTime due, std::chrono::nanoseconds leeway, Work fire) override;
    void unschedule(TimerId timer) override;
    std::unique_ptr<WaitPoint> makeWaitPoint() override;
    void submitMain(Work work) override;

private:
    [[nodiscard]] Work _nextMain();
    [[nodiscard]] std::optional<int> _takeStatus();
    bool _dropMain();

    // Synchronised by themselves.
    WorkerPool _pool;
    TimerThread _timers;

    Mutex _mutex;
    std::condition_variable _mainChanged;
    std::deque<Work> _main ORX_GUARDED_BY(_mutex);
    std::optional<int> _status ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex::platform
