#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvex::platform {

/// The language that a text begins in, as an ISO 639 code ("de", "zh-Hant"); none where it cannot be told with some
/// certainty, as of one short word. Callable from any thread. Defined in platform/linux, over CLD2.
[[nodiscard]] std::optional<std::string> languageTag(std::string_view utf8);

}  // namespace orvex::platform
