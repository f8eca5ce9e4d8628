#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <expected>
#include <memory>
#include <string_view>

#include "client/orvex/types.h"

namespace orvex::client {

template <auto release>
struct Releases {
    template <class T>
    void operator()(T* object) const {
        release(object);
    }
};
using BusHandle = std::unique_ptr<sd_bus, Releases<sd_bus_close_unref>>;
using MessageHandle = std::unique_ptr<sd_bus_message, Releases<sd_bus_message_unref>>;
using SlotHandle = std::unique_ptr<sd_bus_slot, Releases<sd_bus_slot_unref>>;

/// A method call that is being written. A failure is kept, and what is added after it does nothing: `error` is asked
/// once, at the end.
class OutgoingMessage {
public:
    struct Method {
        const char* path;
        const char* interface;
        const char* member;
    };
    OutgoingMessage(sd_bus* bus, const Method& method);

    OutgoingMessage& text(std::string_view text);
    OutgoingMessage& bytes(std::string_view bytes);
    OutgoingMessage& number(std::uint64_t number);
    OutgoingMessage& number(double number);
    OutgoingMessage& value(const Value& value);
    /// Its kind, then its dictionary.
    OutgoingMessage& request(const Request& request);

    OutgoingMessage& neverStartDaemon();
    OutgoingMessage& copy(sd_bus_message* sent);  ///< all that is in it

    // One a{sv}: entries that are not given are left out.
    OutgoingMessage& beginDictionary();
    OutgoingMessage& endDictionary();
    OutgoingMessage& entry(const char* key, std::string_view text);
    OutgoingMessage& entry(const char* key, std::uint32_t number);
    OutgoingMessage& entry(const char* key, std::uint64_t number);
    OutgoingMessage& entry(const char* key, double number);
    OutgoingMessage& entry(const char* key, bool truth);

    [[nodiscard]] int error() const { return _error; }  ///< 0, or a negative errno
    [[nodiscard]] MessageHandle take() { return std::move(_message); }

private:
    template <class Add>
    OutgoingMessage& _add(Add add);
    template <class Add>
    OutgoingMessage& _entry(const char* key, const char* type, Add add);
    void _suggestion(const Suggestion& suggestion);

    MessageHandle _message;
    int _error = 0;
};

/// What is left of a message that came.
[[nodiscard]] std::expected<List, Error> readValues(sd_bus_message* message);

/// A file, then attributes.
[[nodiscard]] std::expected<Resource, Error> readResource(sd_bus_message* message);

}  // namespace orvex::client
