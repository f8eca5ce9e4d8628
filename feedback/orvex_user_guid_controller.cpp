#include "feedback/orvex_user_guid_controller.h"

#include "core/notifications.h"
#include "daemon/assembly.h"
#include "platform/counters.h"
#include "platform/notification_center.h"
#include "platform/uuid.h"

namespace orvex {

std::shared_ptr<GUIDController> makeUserGUIDController(Assembly& assembly) {
    return std::make_shared<OrvexUserGUIDController>(assembly);
}

OrvexUserGUIDController::OrvexUserGUIDController(Assembly& assembly)
    : _assembly(assembly),
      _queue(assembly.dispatcher(), "com.kelvar.orvex.guid") {
    _queue.sync([this] {
        _queue.assertCurrent();
        _takeNewGUID();
    });
}

OrvexUserGUIDController::~OrvexUserGUIDController() { _queue.close(); }

std::string OrvexUserGUIDController::currentUserGUID() {
    return _queue.sync([this] {
        _queue.assertCurrent();
        const auto now = _assembly.dispatcher().wallNow();
        if (_lastKnownUserGUIDExpirationDate <= now || now < _created) _rollGUID();
        return _lastKnownUserGUID;
    });
}

void OrvexUserGUIDController::reset() {
    _queue.async([this] {
        _queue.assertCurrent();
        _rollGUID();
    });
}

void OrvexUserGUIDController::_rollGUID() {
    _takeNewGUID();
    _queue.async([this] {
        _queue.assertCurrent();
        _assembly.counters().add("com.kelvar.orvexd.userguid");
        _assembly.notificationCenter().post(ORXUserGUIDChangeNotification{});
    });
}

void OrvexUserGUIDController::_takeNewGUID() {
    _lastKnownUserGUID = platform::newUUIDString();
    _created = _assembly.dispatcher().wallNow();
    _lastKnownUserGUIDExpirationDate = _created + lifetime;
}

}  // namespace orvex
