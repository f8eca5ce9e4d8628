#include "core/orx_error.h"

#include <fmt/format.h>

namespace orvex {

std::string ORXError::description() const {
    return reason ? fmt::format("{} {} ({})", domain, code, *reason) : fmt::format("{} {}", domain, code);
}

}  // namespace orvex
