#include "platform/device_conditions.h"

#include <utility>
#include <vector>

#include "platform/log.h"

namespace orvex::platform {

DeviceConditions::Observation::~Observation() {
    const MutexLock lock(_conditions._mutex);
    _conditions._observers.erase(_number);
}

Conditions DeviceConditions::current() const {
    const MutexLock lock(_mutex);
    return _current;
}

std::unique_ptr<DeviceConditions::Observation> DeviceConditions::observe(std::function<void()> changed) {
    const MutexLock lock(_mutex);
    _observers[++_lastNumber] = std::move(changed);
    return std::make_unique<Observation>(*this, _lastNumber);
}

void DeviceConditions::update(const std::function<void(Conditions&)>& change) {
    std::vector<std::function<void()>> observers;
    Conditions now;
    {
        const MutexLock lock(_mutex);
        now = _current;
        change(now);
        if (std::exchange(_current, now) == now) return;
        for (const auto& [number, observer] : _observers) observers.push_back(observer);
    }
    defaultLogger().info("the device is {}connected{}, on {}", now.isConnected ? "" : "not ",
                         now.isMetered ? " and metered" : "", now.isOnMains ? "mains" : "battery");
    for (const auto& observer : observers) observer();
}

}  // namespace orvex::platform
