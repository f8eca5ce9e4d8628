#pragma once

#include <chrono>
#include <string>

#include "feedback/guid_controller.h"
#include "platform/clock.h"
#include "platform/dispatch.h"

namespace orvex {

/// Owns a user GUID and rolls it: 900 seconds after it was made, when `reset`, and when the date has gone back to
/// before it was made.
///
/// Each roll is counted ("com.kelvar.orvexd.userguid") and announced (`ORXUserGUIDChangeNotification`) from a further
/// item of its queue, so that whoever asked has the new GUID first.
/// Threading: callable from any thread. The queue is serial: a `reset` followed by `currentUserGUID` from the same
/// thread gives the new one. Durability: none, on purpose. A restart is a new user.
class OrvexUserGUIDController : public GUIDController {
public:
    static constexpr std::chrono::seconds lifetime{900};

    explicit OrvexUserGUIDController(Assembly& assembly);
    ~OrvexUserGUIDController() override;

    [[nodiscard]] std::string currentUserGUID() override;
    void reset() override;

private:
    void _rollGUID() ORX_REQUIRES(_queue);
    void _takeNewGUID() ORX_REQUIRES(_queue);

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by itself.
    platform::SerialQueue _queue;

    // On the queue.
    std::string _lastKnownUserGUID ORX_GUARDED_BY(_queue);
    platform::WallTime _created ORX_GUARDED_BY(_queue);
    platform::WallTime _lastKnownUserGUIDExpirationDate ORX_GUARDED_BY(_queue);
};

}  // namespace orvex
