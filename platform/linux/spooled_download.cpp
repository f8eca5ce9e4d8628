#include "platform/linux/spooled_download.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "platform/linux/read_descriptor.h"
#include "platform/linux/system_failure.h"

namespace orvex::platform {

Result<std::unique_ptr<SpooledDownload>> SpooledDownload::open(const std::shared_ptr<TransferSpool>& spool,
                                                               std::uint64_t number) {
    auto file = spool->openDownload(number);
    if (!file) return std::unexpected(file.error());
    return std::unique_ptr<SpooledDownload>(new SpooledDownload(*std::move(file), spool->downloadPath(number)));
}

SpooledDownload::SpooledDownload(OpenFile file, std::string path)
    : _file(std::move(file.descriptor)),
      _size(file.attributes.size),
      _path(std::move(path)) {}

Result<void> SpooledDownload::moveTo(Directory& directory, std::string_view name) {
    if (!isAcceptablePath(name) || name.find('/') != name.npos) return systemFailure(EINVAL, "move a download there");
    const FileDescriptor target(::open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (target.valid() && ::renameat(AT_FDCWD, _path.c_str(), target.get(), std::string(name).c_str()) == 0)
        return ::fsync(target.get()) == 0 ? Result<void>() : systemFailure(errno, "sync a directory");
    if (target.valid() && errno != EXDEV) return systemFailure(errno, "move a download");
    auto bytes = readDescriptor(_file, _size);
    if (!bytes) return systemFailure(bytes.error(), "read a download");
    return directory.replace(name, *bytes);
}

}  // namespace orvex::platform
