#include "core/constants.h"

namespace orvex {

const std::string& kORXOrvexdNameVersion() {
    static const std::string nameVersion = "orvexd/" ORVEX_VERSION;
    return nameVersion;
}

std::string_view orvexBagHost() { return ORVEX_BAG_HOST; }
std::string_view orvexBagHostChina() { return ORVEX_BAG_HOST_CHINA; }

std::string_view customFeedbackDirectoryName(int type) {
    switch (type) {
        case 1:
            return "lumisk_result_features";
        case 3:
            return "brovia_autofill";
        case 4:
            return "brovia_autoplay";
        case 5:
            return "velloc";
        case 6:
            return "engaged_completion";
        case 7:
            return "proactive_event_tracker";
        default:
            return {};
    }
}

}  // namespace orvex
