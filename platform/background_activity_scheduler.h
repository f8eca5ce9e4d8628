#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/activity_history.h"
#include "platform/background_activity.h"
#include "platform/device_conditions.h"
#include "platform/dispatch.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

class Counters;

/// The scheduler over a dispatcher. An activity has at most one run:
///
///     none ──it is due and its conditions hold, or `run`──▶ handler called
///     handler called ──it returns, done──▶ none
///                    ──it returns, continuing──▶ under way ──its owner ends it──▶ none
///                                                          ──`longestRun` is over──▶ ended, counted; none
///                                                          ──`run`──▶ ended, counted; then a new one
///
/// Handlers run on the queue "com.kelvar.orvexd.activities", so a run waits for whatever handler has not returned. One
/// that returned and never ended its run cannot hold up the next ("activity.ended" counts such runs).
/// There is one timer, for the next moment at which something is due or has lasted too long; an activity that waits for
/// a condition has none.
///
/// Threading: callable from any thread; handlers and completions come on the queue.
class DispatcherActivityScheduler final : public BackgroundActivityScheduler {
public:
    struct Services {
        Dispatcher& dispatcher;
        Counters& counters;
        FileManager& files;
        DeviceConditions& conditions;
    };

    explicit DispatcherActivityScheduler(Services services);
    ~DispatcherActivityScheduler() override;  ///< runs what is queued; no handler comes after

    /// A name that is checked in again gets the new criteria and handler, from its next run on.
    void checkIn(std::string name, ActivityCriteria criteria, Handler handler) override;
    void run(std::string_view name, std::move_only_function<void(Result<void>)> completion) override;
    [[nodiscard]] std::vector<Report> activities() const override;

private:
    class Run;
    struct Activity {
        ActivityCriteria criteria;
        Handler handler;
        MonotonicTime due;               ///< of no meaning without an interval
        std::shared_ptr<Run> latestRun;  ///< null before the first
        MonotonicTime latestRunEnds;     ///< at the latest
    };

    /// What is told of an activity, apart from the queue: a handler may be running there.
    struct Told {
        std::optional<MonotonicTime> due;
        std::shared_ptr<Run> latestRun;
    };

    void _tell() ORX_REQUIRES(_queue);
    void _schedule() ORX_REQUIRES(_queue);
    void _armTimer() ORX_REQUIRES(_queue);
    [[nodiscard]] MonotonicTime _dueAfter(const std::string& name, const ActivityCriteria& criteria)
        ORX_REQUIRES(_queue);
    [[nodiscard]] bool _holds(const ActivityCriteria& criteria) const;
    [[nodiscard]] Result<void> _run(const std::string& name) ORX_REQUIRES(_queue);
    void _endLatestRun(const std::string& name, const Activity& activity) ORX_REQUIRES(_queue);

    // Constant after construction.
    const Services _services;

    // Synchronised by themselves.
    SerialQueue _queue;
    std::unique_ptr<DeviceConditions::Observation> _observation;
    mutable Mutex _mutex;
    std::map<std::string, Told, std::less<>> _told ORX_GUARDED_BY(_mutex);

    // On the queue.
    ActivityHistory _history ORX_GUARDED_BY(_queue);
    std::map<std::string, Activity, std::less<>> _activities ORX_GUARDED_BY(_queue);
    Timer _timer ORX_GUARDED_BY(_queue);
};

}  // namespace orvex::platform
