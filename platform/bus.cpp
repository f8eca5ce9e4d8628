#include "platform/bus.h"

namespace orvex::platform {

BusReply& BusReply::operator=(BusReply&& other) noexcept {
    if (this == &other) return *this;
    if (pending()) fail(bus_error::noReply, "the call was given up");
    _send = std::exchange(other._send, nullptr);
    return *this;
}

BusReply::~BusReply() {
    if (pending()) fail(bus_error::noReply, "the call was given up");
}

void BusReply::answer(BusArguments arguments) {
    if (auto send = std::exchange(_send, nullptr)) send(std::move(arguments));
}

void BusReply::fail(std::string_view errorName, std::string_view message) {
    if (auto send = std::exchange(_send, nullptr)) {
        send(std::unexpected(BusError{std::string(errorName), std::string(message)}));
    }
}

}  // namespace orvex::platform
