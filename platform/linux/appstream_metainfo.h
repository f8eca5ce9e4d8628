#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvex::platform {

/// What a metainfo file (AppStream, "upstream metadata") tells of an application.
struct AppstreamMetainfo {
    std::vector<std::string> applications;  ///< those it launches, else its own id; without ".desktop"
    std::string version;                    ///< of the first release, the newest; empty without one
};

/// None where the text is no metainfo. Entities other than XML's own are not expanded.
[[nodiscard]] std::optional<AppstreamMetainfo> parseAppstreamMetainfo(std::string_view xml);

}  // namespace orvex::platform
