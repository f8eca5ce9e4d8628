#pragma once

#include "daemon/status.h"
#include "daemon/stored_data.h"
#include "platform/bus.h"
#include "platform/dispatch.h"

namespace orvex {

class Assembly;

/// Answers operators and users: the counters, and what the daemon is doing. Makes no connection and holds no
/// transaction. Threading: `receive` on the bus thread; the answers are made on a queue of its own, since some wait for
/// another queue.
class Diagnostics {
public:
    Diagnostics(Assembly& assembly, Status::Traffic traffic);
    ~Diagnostics();

    void receive(platform::BusCall call);

private:
    [[nodiscard]] platform::BusDictionary _counters() const;
    [[nodiscard]] platform::BusArray _transfers() const;
    void _explain(platform::BusCall& call);
    void _erase(const std::string& what, platform::BusReply reply);
    [[nodiscard]] platform::BusArray _pendingFeedback() const;

    // Constant after construction.
    Assembly& _assembly;
    const Status _status;
    StoredData _storedData;

    // Synchronised by itself.
    platform::SerialQueue _queue;
};

}  // namespace orvex
