#include "platform/trace.h"

#include <sys/sdt.h>

namespace orvex::platform {

void traceProbe(std::uint32_t code) { DTRACE_PROBE1(orvexd, trace, code); }

}  // namespace orvex::platform
