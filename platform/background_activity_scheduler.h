#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "platform/background_activity.h"
#include "platform/dispatch.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

class Counters;

/// The scheduler over a dispatcher. An activity has at most one run:
///
///     none ──run──▶ handler called ──it returns, done──▶ none
///                                  ──it returns, continuing──▶ under way ──its owner ends it──▶ none
///                                                                        ──run──▶ ended, counted; then a new one
///
/// Handlers run on the queue "com.kelvar.orvexd.activities", so a run waits for whatever handler has not returned. One
/// that returned and never ended its run cannot hold up the next: that run is ended first ("activity.ended").
///
/// Threading: callable from any thread; handlers and completions come on the queue.
class DispatcherActivityScheduler final : public BackgroundActivityScheduler {
public:
    DispatcherActivityScheduler(Dispatcher& dispatcher, Counters& counters);
    ~DispatcherActivityScheduler() override;  ///< runs what is queued; no handler comes after

    /// A name that is checked in again gets the new handler, from its next run on.
    void checkIn(std::string name, Handler handler) override;
    void run(std::string_view name, std::move_only_function<void(Result<void>)> completion) override;

private:
    class Run;
    struct Activity {
        Handler handler;
        std::shared_ptr<Run> latestRun;  ///< null before the first
    };

    [[nodiscard]] Result<void> _run(const std::string& name) ORX_REQUIRES(_queue);
    void _endLatestRun(const std::string& name, const Activity& activity) ORX_REQUIRES(_queue);

    Counters& _counters;
    SerialQueue _queue;

    std::map<std::string, Activity, std::less<>> _activities ORX_GUARDED_BY(_queue);
};

}  // namespace orvex::platform
