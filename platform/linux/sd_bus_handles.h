#pragma once

#include <memory>

struct sd_bus;
struct sd_bus_message;
struct sd_bus_slot;
struct sd_event;
struct sd_event_source;

/// Owners of libsystemd's objects, which count their references without locks: they are touched and let go on the bus
/// thread only, or while there is none.
namespace orvex::platform {

struct SdRelease {
    void operator()(sd_bus* bus) const;  ///< closes it too
    void operator()(sd_bus_message* message) const;
    void operator()(sd_bus_slot* slot) const;
    void operator()(sd_event* event) const;
    void operator()(sd_event_source* source) const;
};

template <class T>
using SdHandle = std::unique_ptr<T, SdRelease>;

SdHandle<sd_bus_message> retain(sd_bus_message* message);

}  // namespace orvex::platform
