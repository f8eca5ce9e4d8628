#pragma once

#include <cstdint>
#include <span>
#include <string_view>

/// The log lines that an operator acts on. Each has an identity that lasts when its text changes, and fields of its
/// own: the journal and the JSON log carry both. docs/messages.md explains every one; a test holds it to this table.
///
/// An identity is 128 random bits, fixed for ever. A new event gets a new one (`systemd-id128 new`); that of an event
/// that is gone is not used again.
namespace orvex::platform {

enum class LogEvent : std::uint8_t {
    started,
    stopping,
    idleExit,
    busGone,
    startRefused,
    noDirectory,
    settingsBroken,
    settingRefused,
    fileSetAside,
    writeFailed,
    sessionFileDropped,
    bagFetchFailed,
    bagFetched,
    bagEntryRefused,
    transfersBackingOff,
    uploadFailed,
    downloadFailed,
    transferDropped,
    clientRefused,
    callsRefused,
    memoryPressure,
    activityOverdue,
};

struct LogEventDescription {
    LogEvent event;
    std::string_view name;
    std::string_view id;       ///< 32 hexadecimal digits: the journal's MESSAGE_ID
    std::string_view fields;   ///< the names of its own fields, with a blank between
    std::string_view meaning;  ///< one sentence
};

[[nodiscard]] const LogEventDescription& describe(LogEvent event);
[[nodiscard]] std::span<const LogEventDescription> logEvents();  ///< in the order of the enumeration

/// Whether `field` is one of the event's own.
[[nodiscard]] bool hasField(LogEvent event, std::string_view field);

}  // namespace orvex::platform
