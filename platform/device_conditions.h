#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "platform/thread_annotations.h"

namespace orvex::platform {

/// What background work may cost at this moment. What is not known counts as the best.
struct Conditions {
    bool isConnected = true;  ///< to a network that may lead outside
    bool isMetered = false;   ///< known or guessed: what is sent there may be paid for by the byte
    bool isOnMains = true;

    friend bool operator==(const Conditions&, const Conditions&) = default;
};

/// The network and the power of the device, as the services that know them tell (platform/linux/system_conditions.h; in
/// a test the test does). It outlives its observations.
///
/// Threading: callable from any thread. Observers are called on the thread that tells, with no lock held.
class DeviceConditions {
public:
    /// Ends with its destructor; a call that has begun by then is not waited for.
    class Observation {
    public:
        Observation(DeviceConditions& conditions, std::uint64_t number) : _conditions(conditions), _number(number) {}
        ~Observation();
        Observation(const Observation&) = delete;
        Observation& operator=(const Observation&) = delete;

    private:
        DeviceConditions& _conditions;
        const std::uint64_t _number;
    };

    [[nodiscard]] Conditions current() const;

    /// `changed` is called after each change; it may only post.
    [[nodiscard]] std::unique_ptr<Observation> observe(std::function<void()> changed);

    /// For who knows: changes what it knows, and tells the observers if that was news.
    void update(const std::function<void(Conditions& conditions)>& change);

private:
    mutable Mutex _mutex;
    Conditions _current ORX_GUARDED_BY(_mutex);
    std::uint64_t _lastNumber ORX_GUARDED_BY(_mutex) = 0;
    std::map<std::uint64_t, std::function<void()>> _observers ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex::platform
