#pragma once

#include <cstdint>

namespace orvex::platform {

/// Trace points are USDT probes `orvexd:trace(code)`; this is the probe itself, hit only while tracing is on.
/// Defined in platform/linux.
void traceProbe(std::uint32_t code);

}  // namespace orvex::platform
