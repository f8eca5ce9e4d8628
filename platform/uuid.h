#pragma once

#include <string>

namespace orvex::platform {

/// A new random UUID (RFC 9562, version 4) in its canonical text, upper case. From the kernel's random source.
std::string newUUIDString();

}  // namespace orvex::platform
