#pragma once

#include <cstddef>
#include <expected>
#include <string_view>

#include "platform/bus.h"
#include "platform/bus_value.h"
#include "platform/linux/sd_bus_handles.h"

/// Values to and from sd-bus messages, on the bus thread. Byte arrays go as one block.
namespace orvex::platform {

/// Of the values that one message is read into, our own bookkeeping included: small values take more room than on the
/// wire.
inline constexpr std::size_t maxDecodedBytes = std::size_t{64} << 20;
/// Containers within containers, variants counted too; what D-Bus allows in a message.
inline constexpr std::size_t maxValueDepth = 64;

struct ReadArguments {
    BusArguments arguments;
    std::size_t size = 0;  ///< bytes, roughly as on the wire: alignment counts 4 a struct or entry, else nothing
};

/// Reads all arguments of a message that came. The error is fit for the sender: InvalidArgs when the content is broken
/// or nested too deeply, LimitsExceeded when it is too large or there are no descriptors left for its files.
[[nodiscard]] std::expected<ReadArguments, BusError> readArguments(sd_bus_message* message);

/// Appends `arguments` as the types of `signature`; a variant gets its content's own type. Code EINVAL when they do not
/// fit, or a text is not what its type allows; the message is then of no more use.
[[nodiscard]] Result<void> appendArguments(sd_bus_message* message, std::string_view signature,
                                           const BusArguments& arguments);

}  // namespace orvex::platform
