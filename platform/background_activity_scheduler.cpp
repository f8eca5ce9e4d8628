#include "platform/background_activity_scheduler.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

#include "platform/counters.h"
#include "platform/log.h"
#include "platform/log_events.h"
#include "platform/text.h"

namespace orvex::platform {

/// The state is under a leaf lock, not on the queue: its owner ends a run from wherever its work ended.
class DispatcherActivityScheduler::Run : public BackgroundActivity {
public:
    explicit Run(std::string name) : _name(std::move(name)) {}

    [[nodiscard]] State state() const override {
        const MutexLock lock(_mutex);
        return _state;
    }

    [[nodiscard]] bool setState(State state) override {
        {
            const MutexLock lock(_mutex);
            if (!_leads(_state, state)) return false;
            _state = state;
        }
        defaultLogger().debug("activity {} is {}", _name, _stateName(state));
        return true;
    }

private:
    static bool _leads(State from, State to) {
        return (from == State::run && to != State::run) || (from == State::continuing && to == State::done);
    }
    static std::string_view _stateName(State state) {
        switch (state) {
            case State::run:
                return "run";
            case State::continuing:
                return "continuing";
            case State::done:
                return "done";
        }
        return "unknown";
    }

    const std::string _name;
    mutable Mutex _mutex;
    State _state ORX_GUARDED_BY(_mutex) = State::run;
};

DispatcherActivityScheduler::DispatcherActivityScheduler(Services services)
    : _services(services),
      _queue(services.dispatcher, "com.kelvar.orvexd.activities", Priority::background),
      _history(services.files),
      _timer(_queue) {
    _observation = _services.conditions.observe([this] {
        _queue.async([this] {
            _queue.assertCurrent();
            _schedule();
        });
    });
}

DispatcherActivityScheduler::~DispatcherActivityScheduler() {
    _observation.reset();
    _queue.close();
}

void DispatcherActivityScheduler::checkIn(std::string name, ActivityCriteria criteria, Handler handler) {
    _queue.async([this, name = std::move(name), criteria, handler = std::move(handler)]() mutable {
        _queue.assertCurrent();
        auto& activity = _activities[name];
        activity.criteria = criteria;
        activity.handler = std::move(handler);
        activity.due = _dueAfter(name, criteria);
        _schedule();
    });
}

void DispatcherActivityScheduler::run(std::string_view name, std::move_only_function<void(Result<void>)> completion) {
    _queue.async([this, name = std::string(name), completion = std::move(completion)]() mutable {
        _queue.assertCurrent();
        auto result = _run(name);
        _armTimer();
        if (completion) completion(std::move(result));
    });
}

std::vector<BackgroundActivityScheduler::Report> DispatcherActivityScheduler::activities() const {
    const auto now = _services.dispatcher.now();
    const auto wallNow = _services.dispatcher.wallNow();
    std::vector<Report> reports;
    const MutexLock lock(_mutex);
    for (const auto& [name, told] : _told) {
        Report report{.name = name,
                      .isUnderWay = told.latestRun && told.latestRun->state() != BackgroundActivity::State::done,
                      .due = {}};
        if (told.due) report.due = wallNow + std::chrono::duration_cast<WallTime::duration>(*told.due - now);
        reports.push_back(std::move(report));
    }
    return reports;
}

void DispatcherActivityScheduler::_tell() {
    const MutexLock lock(_mutex);
    for (const auto& [name, activity] : _activities) {
        auto& told = _told[name];
        told.latestRun = activity.latestRun;
        const bool isByTheClock = activity.criteria.interval > std::chrono::seconds(0);
        told.due = isByTheClock ? std::optional(activity.due) : std::nullopt;
    }
}

/// No activity comes later than one whole interval after the first look at a clock that was set back since its last
/// run: without a new date every short-lived process would wait a whole interval anew.
MonotonicTime DispatcherActivityScheduler::_dueAfter(const std::string& name, const ActivityCriteria& criteria) {
    if (criteria.interval <= std::chrono::seconds(0)) return {};
    const auto now = _services.dispatcher.wallNow();
    auto last = _history.lastRun(name);
    if (!last || *last > now) {
        _history.noteRun(name, now);
        last = now;
    }
    const std::chrono::duration<double> since(secondsSince1970(now) - secondsSince1970(*last));
    const std::chrono::duration<double> whole = criteria.interval;
    const auto left = std::clamp(whole - since, std::chrono::duration<double>(0), whole);
    return _services.dispatcher.now() + std::chrono::duration_cast<std::chrono::nanoseconds>(left);
}

bool DispatcherActivityScheduler::_holds(const ActivityCriteria& criteria) const {
    const Conditions now = _services.conditions.current();
    return (now.isConnected || !criteria.needsNetwork) && (now.isOnMains || !criteria.needsMains);
}

void DispatcherActivityScheduler::_schedule() {
    const auto now = _services.dispatcher.now();
    for (auto& [name, activity] : _activities) {
        if (activity.latestRunEnds <= now) _endLatestRun(name, activity);
        const bool isDue = activity.criteria.interval > std::chrono::seconds(0) && activity.due <= now;
        if (isDue && _holds(activity.criteria)) (void)_run(name);
    }
    _armTimer();
}

void DispatcherActivityScheduler::_armTimer() {
    _tell();
    const auto now = _services.dispatcher.now();
    std::optional<MonotonicTime> next;
    MonotonicTime latest = MonotonicTime::max();  // what waits longer must not hold up what waits less
    const auto consider = [&](MonotonicTime moment, std::chrono::nanoseconds leeway) {
        next = next ? std::min(*next, moment) : moment;
        latest = std::min(latest, moment + leeway);
    };
    for (const auto& [name, activity] : _activities) {
        const bool isUnderWay = activity.latestRun && activity.latestRun->state() != BackgroundActivity::State::done;
        if (isUnderWay) consider(activity.latestRunEnds, {});
        const bool waits = activity.criteria.interval > std::chrono::seconds(0) && activity.due > now;
        if (waits) consider(activity.due, activity.criteria.grace);
    }
    if (!next) return _timer.cancel();
    _timer.armAt(
        *next,
        [this] {
            _queue.assertCurrent();
            _schedule();
        },
        latest - *next);
}

Result<void> DispatcherActivityScheduler::_run(const std::string& name) {
    const auto found = _activities.find(name);
    if (found == _activities.end()) return failure(ENOENT, fmt::format("no such activity: {}", escaped(name, 256)));
    auto& activity = found->second;
    _endLatestRun(name, activity);
    _history.noteRun(name, _services.dispatcher.wallNow());
    activity.due = _services.dispatcher.now() + activity.criteria.interval;

    const auto run = std::make_shared<Run>(name);
    activity.latestRun = run;
    activity.latestRunEnds = _services.dispatcher.now() + longestRun;
    _tell();
    activity.handler(run);
    if (run->state() == BackgroundActivity::State::run)
        static_cast<void>(run->setState(BackgroundActivity::State::done));
    return {};
}

void DispatcherActivityScheduler::_endLatestRun(const std::string& name, const Activity& activity) {
    if (!activity.latestRun || !activity.latestRun->setState(BackgroundActivity::State::done)) return;
    defaultLogger()
        .as(LogEvent::activityOverdue, {{"ORVEX_ACTIVITY", name}})
        .error("activity {} never ended; it is ended", name);
    _services.counters.add("activity.ended");
}

}  // namespace orvex::platform
