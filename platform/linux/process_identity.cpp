#include "platform/process_identity.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>

namespace orvex::platform {

std::uint32_t ownUserIdentifier() {
    static const std::uint32_t identifier = getuid();  // asked at every call, and never another
    return identifier;
}

Result<std::string> executablePath(std::int32_t processIdentifier) {
    constexpr std::string_view deleted = " (deleted)";
    const std::string link = fmt::format("/proc/{}/exe", processIdentifier);
    std::array<char, 4096> path;
    const ssize_t length = readlink(link.c_str(), path.data(), path.size());
    if (length < 1) return failure(errno, std::generic_category().message(errno));
    std::string text(path.data(), static_cast<std::size_t>(length));
    if (text.ends_with(deleted)) text.resize(text.size() - deleted.size());
    return text;
}

}  // namespace orvex::platform
