#pragma once

#include "platform/bus.h"
#include "platform/dispatch.h"

namespace orvex {

class Assembly;

/// What the launch service hands the daemon: finished transfers, matched notifications, due activities.
/// Threading: `receive` on the bus thread; the events are handled in order on the queue "com.kelvar.orvexd.xpc_event".
class LaunchEvents {
public:
    explicit LaunchEvents(Assembly& assembly);
    ~LaunchEvents();

    void receive(platform::BusCall call);

private:
    void _notificationMatched(const std::string& name) ORX_REQUIRES(_queue);
    void _runActivity(const std::string& name, platform::BusReply reply) ORX_REQUIRES(_queue);

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by itself.
    platform::SerialQueue _queue;
};

}  // namespace orvex
