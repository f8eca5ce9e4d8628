#pragma once

#include <condition_variable>
#include <map>
#include <optional>
#include <set>
#include <thread>

#include "platform/dispatch.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// The thread that calls what is scheduled, each once, between its time and its time plus leeway. It sleeps until the
/// first leeway ends and then calls everything that is due, so timers with leeway share a wake-up; with nothing
/// scheduled it does not wake at all. Nothing is called before `start`.
///
/// Threading: callable from any thread. What is called may only submit; it may be called while `unschedule` returns.
class TimerThread {
public:
    TimerThread() = default;
    ~TimerThread() { stop(); }
    TimerThread(const TimerThread&) = delete;
    TimerThread& operator=(const TimerThread&) = delete;

    Dispatcher::TimerId schedule(MonotonicTime due, std::chrono::nanoseconds leeway, Work fire);
    void unschedule(Dispatcher::TimerId timer);
    void start();
    void stop();  ///< destroys what has not been called; so too what is scheduled later

private:
    using Moment = std::pair<MonotonicTime, Dispatcher::TimerId>;
    struct Scheduled {
        MonotonicTime due;
        MonotonicTime latest;
        Work fire;
    };

    void _serve();
    [[nodiscard]] Work _nextDue();
    [[nodiscard]] Work _extract(Dispatcher::TimerId timer) ORX_REQUIRES(_mutex);

    Mutex _mutex;
    std::condition_variable _changed;
    std::map<Dispatcher::TimerId, Scheduled> _scheduled ORX_GUARDED_BY(_mutex);
    std::set<Moment> _byDue ORX_GUARDED_BY(_mutex);
    std::set<Moment> _byLatest ORX_GUARDED_BY(_mutex);
    Dispatcher::TimerId _lastId ORX_GUARDED_BY(_mutex) = 0;
    bool _awake ORX_GUARDED_BY(_mutex) = false;  ///< a leeway has ended, and not all that is due has been called
    bool _stopping ORX_GUARDED_BY(_mutex) = false;
    std::thread _thread;  ///< touched by `start` and `stop` alone
};

}  // namespace orvex::platform
