#include "network/maps_user_session.h"

#include <fmt/format.h>

#include <chrono>

#include "platform/uuid.h"

namespace orvex {

MapsUserSession::MapsUserSession(platform::Dispatcher& dispatcher)
    : _dispatcher(dispatcher),
      _identifier(platform::newUUIDString()),
      _began(dispatcher.now()) {}

std::string MapsUserSession::nextEntity() {
    const platform::MutexLock lock(_mutex);
    ++_sequenceNumber;
    return _entity();
}

std::string MapsUserSession::currentEntity() const {
    const platform::MutexLock lock(_mutex);
    return _entity();
}

void MapsUserSession::reset() {
    const platform::MutexLock lock(_mutex);
    _identifier = platform::newUUIDString();
    _sequenceNumber = 0;
    _began = _dispatcher.now();
}

std::string MapsUserSession::_entity() const {
    const std::chrono::duration<double> age = _dispatcher.now() - _began;
    return fmt::format("{} {} {:f}", _identifier, _sequenceNumber, age.count());
}

}  // namespace orvex
