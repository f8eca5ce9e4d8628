#include "network/motion_manager.h"

#include "daemon/assembly.h"

namespace orvex {

void MotionManager::startUpdatingMotionActivity(std::weak_ptr<MotionManagerDelegate> delegate) {
    auto* service = _assembly.motion();
    if (!service || _updating.exchange(true)) return;
    service->startUpdating([delegate = std::move(delegate)](const platform::MotionActivity& activity) {
        if (const auto told = delegate.lock()) told->didUpdateMotionActivity(activity);
    });
}

void MotionManager::stopUpdatingMotionActivity() {
    if (auto* service = _assembly.motion()) service->stopUpdating();
    _updating = false;
}

}  // namespace orvex
