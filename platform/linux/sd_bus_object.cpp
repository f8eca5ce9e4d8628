#include "platform/linux/sd_bus_object.h"

#include <systemd/sd-bus.h>

#include <bit>
#include <system_error>

// Every method is SD_BUS_VTABLE_UNPRIVILEGED: for any other sd-bus asks for the caller's capabilities first, and waits
// for the answer, at each call. Who may call is the daemon's decision.

namespace orvex::platform {

SdBusObject::~SdBusObject() = default;

Result<void> SdBusObject::exportOn(sd_bus* bus) {
    for (const auto& interface : _interfaces) {
        const auto& table = _tables.emplace_back(_table(interface));
        sd_bus_slot* slot = nullptr;
        const int r =
            sd_bus_add_object_vtable(bus, &slot, _path.c_str(), interface.name.c_str(), table.data(), nullptr);
        if (r < 0) {
            return failure(-r, "the interface " + interface.name + " cannot be exported at " + _path + ": " +
                                   std::generic_category().message(-r));
        }
        _slots.emplace_back(slot);
    }
    return {};
}

const char* SdBusObject::_names(const std::vector<std::string>& first, const std::vector<std::string>& second) {
    auto& text = _texts.emplace_back();
    for (const auto* names : {&first, &second}) {
        for (const auto& name : *names) text.append(name).push_back('\0');
    }
    return text.c_str();
}

std::vector<sd_bus_vtable> SdBusObject::_table(const BusInterface& interface) {
    const auto called = [](sd_bus_message* call, void* userdata, sd_bus_error*) {
        const auto& method = *static_cast<const Method*>(userdata);
        method.object->_called(call, method);
        return 1;
    };

    std::vector<sd_bus_vtable> table;
    table.push_back(SD_BUS_VTABLE_START(0));
    for (const auto& method : interface.methods) {
        const auto& target = _methods.emplace_back(Method{this, method.outSignature});
        sd_bus_vtable entry{};
        entry.type = _SD_BUS_VTABLE_METHOD;
        entry.flags = SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_ABSOLUTE_OFFSET;
        entry.x.method = {.member = method.name.c_str(),
                          .signature = method.inSignature.c_str(),
                          .result = method.outSignature.c_str(),
                          .handler = called,
                          .offset = std::bit_cast<std::size_t>(&target),
                          .names = _names(method.inNames, method.outNames)};
        table.push_back(entry);
    }
    for (const auto& signal : interface.signals) {
        sd_bus_vtable entry{};
        entry.type = _SD_BUS_VTABLE_SIGNAL;
        entry.x.signal = {.member = signal.name.c_str(),
                          .signature = signal.inSignature.c_str(),
                          .names = _names(signal.inNames, {})};
        table.push_back(entry);
    }
    table.push_back(SD_BUS_VTABLE_END);
    return table;
}

}  // namespace orvex::platform
