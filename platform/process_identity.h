#pragma once

#include <cstdint>
#include <string>

#include "platform/result.h"

/// Who this process is, and who others are. Defined in platform/linux.
namespace orvex::platform {

/// The user that this process runs as.
std::uint32_t ownUserIdentifier();

/// The path of the program that a process runs, without the " (deleted)" of one that was replaced while it runs. Fails
/// with the system's error number when the process is gone or is not ours to ask.
Result<std::string> executablePath(std::int32_t processIdentifier);

}  // namespace orvex::platform
