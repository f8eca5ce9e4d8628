#include "platform/user_defaults.h"

namespace orvex::platform {

bool UserDefaults::boolean(std::string_view key) const {
    const auto value = object(key);
    return value && value->coerceToBool();
}

std::int64_t UserDefaults::integer(std::string_view key) const {
    const auto value = object(key);
    return value ? value->coerceToInteger() : 0;
}

}  // namespace orvex::platform
