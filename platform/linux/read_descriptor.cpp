#include "platform/linux/read_descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace orvex::platform {

std::expected<std::string, int> readDescriptor(const FileDescriptor& file, std::size_t maxBytes) {
    std::string bytes;
    constexpr std::size_t pieceBytes = 64 * 1024;
    while (true) {
        const std::size_t length = bytes.size();
        bytes.resize(length + std::min(pieceBytes, maxBytes - length + 1));  // one more tells a file that is too large
        const auto got = ::read(file.get(), bytes.data() + length, bytes.size() - length);
        bytes.resize(length + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got < 0 && errno != EINTR) return std::unexpected(errno);
        if (got == 0) return bytes;
        if (bytes.size() > maxBytes) return std::unexpected(EFBIG);
    }
}

std::expected<std::string, int> readSystemFile(const std::string& path, std::size_t maxBytes) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.valid()) return std::unexpected(errno);
    struct stat status{};
    if (::fstat(file.get(), &status) != 0) return std::unexpected(errno);
    if (!S_ISREG(status.st_mode)) return std::unexpected(ENXIO);
    return readDescriptor(file, maxBytes);
}

}  // namespace orvex::platform
