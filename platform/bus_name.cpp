#include "platform/bus_name.h"

#include <chrono>

#include "platform/bus.h"

namespace orvex::platform {
namespace {

void afterAnswerOfBus(Bus& bus, std::move_only_function<void()> next) {
    const std::string driver = "org.freedesktop.DBus";
    bus.call(driver, "/org/freedesktop/DBus", driver, "GetId", "", {}, std::chrono::seconds(10),
             [next = std::move(next)](auto&&) mutable { next(); });
}

}  // namespace

// Once the bus has taken the name back, what it sent before is on its way to us in order, and its answer to a question
// is behind all of it. By then the credentials that some of those calls wait for have been asked for, so the answer to
// a second question is behind these too.
void giveBackName(Bus& bus, std::string name, std::move_only_function<void()> drained) {
    bus.releaseName(std::move(name));
    afterAnswerOfBus(bus,
                     [&bus, drained = std::move(drained)]() mutable { afterAnswerOfBus(bus, std::move(drained)); });
}

}  // namespace orvex::platform
