#include "network/orx_tracing.h"

#include <atomic>
#include <mutex>

#include "core/settings.h"
#include "daemon/orvex_logging.h"
#include "platform/trace.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

std::atomic<bool> traceEnabled = false;
std::once_flag readOnce;

}  // namespace

void ORXTracingSetup(const platform::UserDefaults& userDefaults) {
    std::call_once(readOnce, [&] { traceEnabled = userDefaults.boolean(setting::traceEnabled); });
    OrvexLogForCategory(OrvexLoggingCategory::general).debug("ORXTraceEnabled flag set to {:d}", ORXTraceEnabled());
}

bool ORXTraceEnabled() { return traceEnabled.load(std::memory_order_relaxed); }

void ORXTrace(std::uint32_t code) {
    if (ORXTraceEnabled()) platform::traceProbe(code);
}

}  // namespace orvex
