#include "platform/background_activity_scheduler.h"

#include <fmt/format.h>

#include <cerrno>

#include "platform/counters.h"
#include "platform/log.h"
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

DispatcherActivityScheduler::DispatcherActivityScheduler(Dispatcher& dispatcher, Counters& counters)
    : _counters(counters),
      _queue(dispatcher, "com.kelvar.orvexd.activities", Priority::background) {}

DispatcherActivityScheduler::~DispatcherActivityScheduler() { _queue.close(); }

void DispatcherActivityScheduler::checkIn(std::string name, Handler handler) {
    _queue.async([this, name = std::move(name), handler = std::move(handler)]() mutable {
        _queue.assertCurrent();
        _activities[std::move(name)].handler = std::move(handler);
    });
}

void DispatcherActivityScheduler::run(std::string_view name, std::move_only_function<void(Result<void>)> completion) {
    _queue.async([this, name = std::string(name), completion = std::move(completion)]() mutable {
        _queue.assertCurrent();
        auto result = _run(name);
        if (completion) completion(std::move(result));
    });
}

Result<void> DispatcherActivityScheduler::_run(const std::string& name) {
    const auto found = _activities.find(name);
    if (found == _activities.end()) return failure(ENOENT, fmt::format("no such activity: {}", escaped(name, 256)));
    auto& activity = found->second;
    _endLatestRun(name, activity);

    const auto run = std::make_shared<Run>(name);
    activity.latestRun = run;
    activity.handler(run);
    if (run->state() == BackgroundActivity::State::run)
        static_cast<void>(run->setState(BackgroundActivity::State::done));
    return {};
}

void DispatcherActivityScheduler::_endLatestRun(const std::string& name, const Activity& activity) {
    if (!activity.latestRun || !activity.latestRun->setState(BackgroundActivity::State::done)) return;
    defaultLogger().error("activity {} never ended; ended for its next run", name);
    _counters.add("activity.ended");
}

}  // namespace orvex::platform
