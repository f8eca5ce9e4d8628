#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace orvex::platform {

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
///
/// Threading: `checkIn` and `run` from any thread; handlers on the scheduler's own queue, one after the other.
class BackgroundActivityScheduler {
public:
    using Handler = std::move_only_function<void(std::shared_ptr<BackgroundActivity>)>;

    virtual ~BackgroundActivityScheduler() = default;
    virtual void checkIn(std::string name, Handler handler) = 0;

    /// Runs it whatever its criteria. `completion` comes when its handler has returned; a name that nobody has checked
    /// in fails with ENOENT.
    virtual void run(std::string_view name, std::move_only_function<void(Result<void>)> completion) = 0;
};

}  // namespace orvex::platform
