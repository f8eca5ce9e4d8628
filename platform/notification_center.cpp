#include "platform/notification_center.h"

#include <algorithm>
#include <condition_variable>
#include <thread>
#include <vector>

#include "platform/thread_annotations.h"

namespace orvex::platform {

struct NotificationCenter::Registration {
    const std::type_index name;
    const std::weak_ptr<void> observer;
    const void* const key;
    Deliver deliver;
    // Guarded by the centre.
    bool removed = false;
    std::vector<std::thread::id> delivering;  ///< one entry a delivery
};

struct NotificationCenter::State {
    using Registrations = std::vector<std::shared_ptr<Registration>>;

    [[nodiscard]] Registrations named(std::type_index name);
    [[nodiscard]] bool begin(Registration& registration);
    void end(Registration& registration);
    void forget(const std::shared_ptr<Registration>& registration);
    [[nodiscard]] Registrations take(std::optional<std::type_index> name, const void* observer);
    void awaitDeliveriesElsewhere(const Registrations& removed);

    Mutex mutex;
    std::condition_variable delivered;
    Registrations registrations ORX_GUARDED_BY(mutex);  ///< in the order in which they came
};

NotificationCenter::State::Registrations NotificationCenter::State::named(std::type_index name) {
    Registrations found;
    const MutexLock lock(mutex);
    std::ranges::copy_if(registrations, std::back_inserter(found),
                         [name](const auto& registration) { return registration->name == name; });
    return found;
}

/// False when the registration was removed meanwhile.
bool NotificationCenter::State::begin(Registration& registration) {
    const MutexLock lock(mutex);
    if (registration.removed) return false;
    registration.delivering.push_back(std::this_thread::get_id());
    return true;
}

void NotificationCenter::State::end(Registration& registration) {
    const MutexLock lock(mutex);
    registration.delivering.erase(std::ranges::find(registration.delivering, std::this_thread::get_id()));
    if (registration.removed) delivered.notify_all();
}

void NotificationCenter::State::forget(const std::shared_ptr<Registration>& registration) {
    const MutexLock lock(mutex);
    std::erase(registrations, registration);
}

NotificationCenter::State::Registrations NotificationCenter::State::take(std::optional<std::type_index> name,
                                                                         const void* observer) {
    const auto concerned = [&](const auto& registration) {
        return registration->key == observer && (!name || registration->name == *name);
    };
    Registrations taken;
    const MutexLock lock(mutex);
    std::ranges::copy_if(registrations, std::back_inserter(taken), concerned);
    std::erase_if(registrations, concerned);
    for (const auto& registration : taken) registration->removed = true;
    return taken;
}

void NotificationCenter::State::awaitDeliveriesElsewhere(const Registrations& removed) {
    const auto here = std::this_thread::get_id();
    const auto areOver = [&] {
        return std::ranges::all_of(removed, [here](const auto& registration) {
            return std::ranges::all_of(registration->delivering, [here](auto thread) { return thread == here; });
        });
    };
    std::unique_lock lock(mutex.native());
    delivered.wait(lock, areOver);
}

NotificationCenter::NotificationCenter() : _state(std::make_unique<State>()) {}
NotificationCenter::~NotificationCenter() = default;

void NotificationCenter::_add(std::type_index name, std::weak_ptr<void> observer, const void* key, Deliver deliver) {
    auto registration = std::make_shared<Registration>(name, std::move(observer), key, std::move(deliver));
    const MutexLock lock(_state->mutex);
    _state->registrations.push_back(std::move(registration));
}

void NotificationCenter::_post(std::type_index name, const void* notification) {
    for (const auto& registration : _state->named(name)) {
        if (!_state->begin(*registration)) continue;
        auto observer = registration->observer.lock();
        if (observer) {
            registration->deliver(notification);
        } else {
            _state->forget(registration);
        }
        observer.reset();  // it may have been the last to hold it: that end belongs to the delivery
        _state->end(*registration);
    }
}

void NotificationCenter::removeObserver(const void* observer) { _remove({}, observer); }

void NotificationCenter::_remove(std::optional<std::type_index> name, const void* observer) {
    _state->awaitDeliveriesElsewhere(_state->take(name, observer));
}

}  // namespace orvex::platform
