#pragma once

#include <cstdint>

namespace orvex::platform {
class UserDefaults;
}

namespace orvex {

/// Reads the user default "TraceEnabled" into the flag, once per process; later calls only tell the flag.
void ORXTracingSetup(const platform::UserDefaults& userDefaults);

/// Whether requests leave trace points. False before `ORXTracingSetup`.
[[nodiscard]] bool ORXTraceEnabled();

/// A trace point of that code, while tracing is on.
void ORXTrace(std::uint32_t code);

}  // namespace orvex
