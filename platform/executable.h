#pragma once

#include <cstdint>
#include <string>

#include "platform/result.h"

namespace orvex::platform {

/// The path of the program that a process runs, without the " (deleted)" of one that was replaced while it runs. Fails
/// with the system's error number when the process is gone or is not ours to ask. Defined in platform/linux.
Result<std::string> executablePath(std::int32_t processIdentifier);

}  // namespace orvex::platform
