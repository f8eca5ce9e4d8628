#pragma once

#include <systemd/sd-bus-vtable.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/bus.h"
#include "platform/linux/sd_bus_handles.h"
#include "platform/result.h"

namespace orvex::platform {

/// One exported object: its interfaces as the tables that sd-bus checks calls and makes introspection by. On the bus
/// thread only; the tables stay where they are as long as it lives: a call may still be under way when its export ends.
class SdBusObject : public std::enable_shared_from_this<SdBusObject> {
public:
    struct Method {
        SdBusObject* object;
        std::string outSignature;
    };
    /// Takes a call that fits the declared signature, and sees to its answer.
    using Called = std::function<void(sd_bus_message* call, const Method& method)>;

    SdBusObject(std::string path, std::vector<BusInterface> interfaces, BusCallHandler handler, Called called)
        : _path(std::move(path)),
          _interfaces(std::move(interfaces)),
          _handler(std::move(handler)),
          _called(std::move(called)) {}
    ~SdBusObject();
    SdBusObject(const SdBusObject&) = delete;
    SdBusObject& operator=(const SdBusObject&) = delete;

    [[nodiscard]] Result<void> exportOn(sd_bus* bus);  ///< once
    void endExport() { _slots.clear(); }
    [[nodiscard]] bool isExported() const { return !_slots.empty(); }
    void handle(BusCall call) { _handler(std::move(call)); }

private:
    /// The arguments' names one behind the other, each with its NUL.
    const char* _names(const std::vector<std::string>& first, const std::vector<std::string>& second);
    std::vector<sd_bus_vtable> _table(const BusInterface& interface);

    const std::string _path;
    const std::vector<BusInterface> _interfaces;
    BusCallHandler _handler;
    const Called _called;

    // What the tables point to; a deque, since its elements never move.
    std::deque<Method> _methods;
    std::deque<std::string> _texts;
    std::deque<std::vector<sd_bus_vtable>> _tables;

    std::vector<SdHandle<sd_bus_slot>> _slots;
};

}  // namespace orvex::platform
