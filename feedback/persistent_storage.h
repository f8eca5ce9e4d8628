#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace orvex {

class FileContainer;

/// The role of the keeper of session files: hands out new ones, keeps the list of finished ones until they are
/// uploaded. Threading: callable from any thread, but never from a callback of a file container.
class PersistentStorage {
public:
    virtual ~PersistentStorage() = default;
    /// A new, empty, open session file; null when none can be made, logged.
    [[nodiscard]] virtual std::shared_ptr<FileContainer> createFileContainerForWriting() = 0;
    /// The finished sessions that wait for upload, oldest first.
    [[nodiscard]] virtual std::vector<std::shared_ptr<FileContainer>> getAvailableSessionHandles() = 0;
    /// How much waits for upload. Waits for nothing, so it may be a change behind.
    struct Waiting {
        std::uint64_t files = 0;
        std::uint64_t bytes = 0;
    };
    [[nodiscard]] virtual Waiting waiting() const = 0;
    /// Puts it on the list of finished ones, then closes its file. Asynchronous.
    virtual void closeSessionWithFileContainer(std::shared_ptr<FileContainer> container) = 0;
    /// Off the list when this returns; its file is unlinked when the last reference to the container goes. False: it
    /// was not on the list, so another took it before.
    virtual bool deleteSessionWithFileContainer(const std::shared_ptr<FileContainer>& container) = 0;
};

}  // namespace orvex
