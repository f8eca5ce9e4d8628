#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/result.h"

namespace orvex::platform {

/// When an activity is due.
struct ActivityCriteria {
    std::chrono::seconds interval{0};  ///< between the beginnings of two runs; 0: it is run on demand only
    std::chrono::seconds grace{0};     ///< how much later it may begin for the sake of a shared wake-up
    bool needsNetwork = false;         ///< a run that is due waits for one
    bool needsMains = false;
};

/// One run of a background activity.
///
///     run ──setState(continuing)──▶ continuing ──setState(done)──▶ done
///     run ──setState(done), or its handler's return without taking it on──▶ done
class BackgroundActivity {
public:
    enum class State { run = 2, continuing = 4, done = 5 };  ///< the numbers are the launch service's

    virtual ~BackgroundActivity() = default;
    [[nodiscard]] virtual State state() const = 0;
    [[nodiscard]] virtual bool setState(State state) = 0;  ///< false: not a change that the drawing above has
};

/// Work that is due now and then. A component checks in under a name; when the activity is run its handler is called.
/// The first run comes an interval after the first check-in ever; when an activity last began is remembered across
/// restarts. A run that has not ended after `longestRun` is ended.
///
/// Threading: `checkIn` and `run` from any thread; handlers on the scheduler's own queue, one after the other.
class BackgroundActivityScheduler {
public:
    static constexpr std::chrono::minutes longestRun{10};

    using Handler = std::move_only_function<void(std::shared_ptr<BackgroundActivity>)>;

    virtual ~BackgroundActivityScheduler() = default;
    virtual void checkIn(std::string name, ActivityCriteria criteria, Handler handler) = 0;

    /// Runs it whatever its criteria; that counts as its last run. `completion` comes when its handler has returned; a
    /// name that nobody has checked in fails with ENOENT.
    virtual void run(std::string_view name, std::move_only_function<void(Result<void>)> completion) = 0;

    /// For operators. Waits for no handler.
    struct Report {
        std::string name;
        bool isUnderWay = false;
        std::optional<WallTime> due;  ///< none: it is run on demand only; in the past: it waits for what it needs
    };
    [[nodiscard]] virtual std::vector<Report> activities() const = 0;
};

}  // namespace orvex::platform
