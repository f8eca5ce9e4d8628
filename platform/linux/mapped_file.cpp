#include "platform/mapped_file.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include "platform/linux/system_failure.h"

namespace orvex::platform {

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
    if (this != &other) {
        _unmap();
        _bytes = std::exchange(other._bytes, {});
    }
    return *this;
}

void MappedFile::_unmap() noexcept {
    if (_bytes.data() != nullptr) ::munmap(const_cast<char*>(_bytes.data()), _bytes.size());
}

Result<MappedFile> mmapFileHandle(const FileDescriptor& file) {
    struct stat status{};
    if (::fstat(file.get(), &status) != 0) return systemFailure(errno, "look at a file");
    const auto size = static_cast<std::size_t>(status.st_size);
    const void* data = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
    if (data == MAP_FAILED) return systemFailure(errno, "map a file");
    return MappedFile(data, size);
}

}  // namespace orvex::platform
