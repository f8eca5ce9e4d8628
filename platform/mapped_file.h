#pragma once

#include <string_view>
#include <utility>

#include "platform/file_manager.h"

namespace orvex::platform {

/// The bytes of a file, read-only and private, without reading it: unmapped with its owner. The file must not be cut
/// short meanwhile, which `Directory::replace` never does.
class MappedFile {
public:
    MappedFile(const void* data, std::size_t size) : _bytes(static_cast<const char*>(data), size) {}
    MappedFile(MappedFile&& other) noexcept : _bytes(std::exchange(other._bytes, {})) {}
    MappedFile& operator=(MappedFile&& other) noexcept;
    ~MappedFile() { _unmap(); }

    [[nodiscard]] std::string_view bytes() const { return _bytes; }

private:
    void _unmap() noexcept;

    std::string_view _bytes;
};

/// The failure's code is errno; EINVAL for an empty file. Defined in platform/linux.
Result<MappedFile> mmapFileHandle(const FileDescriptor& file);

}  // namespace orvex::platform
