#include "platform/linux/write_descriptor.h"

#include <unistd.h>

#include <cerrno>

namespace orvex::platform {

int writeAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto written = ::write(file, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return written < 0 ? errno : EIO;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

int syncDirectory(int directory) { return ::fsync(directory) == 0 || errno == EINVAL ? 0 : errno; }

}  // namespace orvex::platform
