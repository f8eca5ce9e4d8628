#include "platform/linux/sd_bus_handles.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

namespace orvex::platform {

void SdRelease::operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
void SdRelease::operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
void SdRelease::operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
void SdRelease::operator()(sd_event* event) const { sd_event_unref(event); }
void SdRelease::operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }

SdHandle<sd_bus_message> retain(sd_bus_message* message) {
    return SdHandle<sd_bus_message>(sd_bus_message_ref(message));
}

}  // namespace orvex::platform
