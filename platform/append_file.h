#pragma once

#include <cstdint>
#include <string_view>

#include "platform/result.h"

namespace orvex::platform {

/// A file that grows at its end, open; closed with its owner. It stays the same file when it is renamed or removed.
///
/// Threading: callable from any thread; `sync` may run beside the others.
/// Durability: what was appended survives the process at once, and a power cut once a later `sync` has succeeded.
class AppendFile {
public:
    virtual ~AppendFile() = default;

    /// Whatever its length; a failure may leave a part of the bytes at the end.
    [[nodiscard]] virtual Result<void> append(std::string_view bytes) = 0;
    [[nodiscard]] virtual Result<std::uint64_t> size() const = 0;
    [[nodiscard]] virtual Result<void> truncate(std::uint64_t size) = 0;
    /// Its bytes, and that it exists. After a failure the bytes from before may be lost, and a later success does not
    /// say that they are not.
    [[nodiscard]] virtual Result<void> sync() = 0;
};

}  // namespace orvex::platform
