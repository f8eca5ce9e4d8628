#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace orvex::platform {

/// What the device's movement looks like; more than one may hold.
struct MotionActivity {
    bool stationary = false;
    bool automotive = false;
    bool walking = false;
    bool running = false;
    bool cycling = false;
};

/// Threading: callable from any thread; the handler comes on a thread of the service's own.
class MotionService {
public:
    virtual ~MotionService() = default;
    virtual void startUpdating(std::function<void(const MotionActivity& activity)> handler) = 0;
    virtual void stopUpdating() = 0;
};

/// What the user's day is like at this moment: -1, 0 or 1; none where nothing can be told.
class RoutineService {
public:
    virtual ~RoutineService() = default;
    [[nodiscard]] virtual std::optional<std::int32_t> mode() = 0;  ///< may take long
};

}  // namespace orvex::platform
