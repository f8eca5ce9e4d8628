#include "daemon/request_defaults.h"

#include <cmath>
#include <utility>

#include "core/orx_request.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "platform/locale.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

/// The main screen's scale; 1 where what is stored is not one.
double screenScale(const platform::UserDefaults& userDefaults) {
    const auto stored = userDefaults.object(setting::screenScale);
    const double* fraction = stored ? stored->as<double>() : nullptr;
    const double scale =
        fraction != nullptr ? *fraction : static_cast<double>(userDefaults.integer(setting::screenScale));
    return std::isfinite(scale) && scale > 0 ? scale : 1.0;
}

}  // namespace

void fillInFromSystem(ORXRequest& request, const Assembly& assembly) {
    const auto& log = OrvexLogForCategory(OrvexLoggingCategory::request);
    if (request.keyboardInputMode.empty()) {
        auto locale = assembly.locale().current();
        request.keyboardInputMode = locale.keyboardLayout.empty()
                                        ? locale.identifier.substr(0, locale.identifier.find('_'))
                                        : std::move(locale.keyboardLayout);
        log.debug("keyboardInputMode property not set, using {}", request.keyboardInputMode);
    }
    if (request.scale == 0.0) {
        request.scale = screenScale(assembly.userDefaults());
        log.debug("request scale property not set, using {:f}", request.scale);
    }
}

}  // namespace orvex
