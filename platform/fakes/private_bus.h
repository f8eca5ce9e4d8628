#pragma once

#include <sys/types.h>

#include <string>

#include "platform/fakes/temporary_directory.h"

namespace orvex::platform {

/// A message bus for one test: a dbus-daemon of its own, of type session, that activates nothing and lets any client do
/// anything. It listens before the constructor returns; the constructor aborts with a message when there is no
/// dbus-daemon. It ends with this object, and with the test's process however that ends.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// As DBUS_SESSION_BUS_ADDRESS takes it.
    [[nodiscard]] const std::string& address() const { return _address; }

    void stop();  ///< the bus goes away under its clients

private:
    const TemporaryDirectory _directory;
    std::string _address;
    pid_t _process = -1;
};

}  // namespace orvex::platform
