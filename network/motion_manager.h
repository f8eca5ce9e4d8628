#pragma once

#include <atomic>
#include <memory>

#include "platform/motion_service.h"

namespace orvex {

class Assembly;

/// Called on the motion service's thread.
class MotionManagerDelegate {
public:
    virtual ~MotionManagerDelegate() = default;
    virtual void didUpdateMotionActivity(const platform::MotionActivity& activity) = 0;
};

/// How the device moves, asked for one sample at a time. A device that cannot tell never reports.
///
/// Threading: callable from any thread, from within a delegate's call too.
class MotionManager {
public:
    explicit MotionManager(Assembly& assembly) : _assembly(assembly) {}
    MotionManager(const MotionManager&) = delete;
    MotionManager& operator=(const MotionManager&) = delete;

    /// Nothing while updates are on. `delegate` is held weakly.
    void startUpdatingMotionActivity(std::weak_ptr<MotionManagerDelegate> delegate);
    void stopUpdatingMotionActivity();

private:
    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by itself.
    std::atomic<bool> _updating = false;
};

}  // namespace orvex
