#include "platform/linux/open_beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/linux/system_failure.h"

namespace orvex::platform {
namespace {

bool acceptable(std::string_view name) { return name == "." || isAcceptablePath(name); }

std::unexpected<Failure> cannotOpen(int code, std::string_view name) {
    return systemFailure(code, fmt::format("open {}", name));
}

}  // namespace

Result<FileDescriptor> openBeneath(int directory, std::string_view name, int flags, mode_t mode) {
    if (!acceptable(name)) return cannotOpen(EINVAL, name);
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    const std::string path(name);
    const auto fd = static_cast<int>(::syscall(SYS_openat2, directory, path.c_str(), &how, sizeof how));
    if (fd >= 0) return FileDescriptor(fd);
    // A sandbox that does not know the call refuses it with EPERM.
    if (errno == ENOSYS || errno == EPERM) return openBeneathStepwise(directory, name, flags, mode);
    return cannotOpen(errno, name);
}

Result<FileDescriptor> openBeneathStepwise(int directory, std::string_view name, int flags, mode_t mode) {
    if (!acceptable(name)) return cannotOpen(EINVAL, name);
    FileDescriptor held;
    int parent = directory;
    std::string_view rest = name;
    for (auto slash = rest.find('/'); slash != rest.npos; slash = rest.find('/')) {
        const std::string part(rest.substr(0, slash));
        FileDescriptor next(::openat(parent, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next.valid()) return cannotOpen(errno, name);
        held = std::move(next);
        parent = held.get();
        rest.remove_prefix(slash + 1);
    }
    FileDescriptor opened(::openat(parent, std::string(rest).c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!opened.valid()) return cannotOpen(errno, name);
    return opened;
}

}  // namespace orvex::platform
