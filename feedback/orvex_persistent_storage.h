#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "feedback/persistent_storage.h"
#include "platform/dispatch.h"

namespace orvex::platform {
class Directory;
}

namespace orvex {

class Assembly;

/// Owns the session files, "session." and a number in the caches directory: hands out new ones, and keeps the list of
/// finished ones until they are uploaded.
///
///     new ──createFileContainerForWriting──▶ open ──closeSession…──▶ waiting ──deleteSession…──▶ gone
///     found at start ──▶ waiting, or gone when it is older than `ORXSessionMaxAge`
///
/// Limits: at most `maxWaitingFiles` wait, and `maxWaitingBytes`; when another finishes, the oldest go, counted. Those
/// found at start count, but the start itself removes none.
/// Threading: as the role says. One serial queue does all file work, shared with every container.
/// Durability: a file is there once it was handed out; FileContainer tells about what is in it.
class OrvexPersistentStorage final : public PersistentStorage {
public:
    static constexpr std::size_t maxWaitingFiles = 2'000;
    static constexpr std::uint64_t maxWaitingBytes = std::uint64_t{256} << 20;

    /// Reads the limits from the user defaults and scans the directory.
    explicit OrvexPersistentStorage(Assembly& assembly);
    ~OrvexPersistentStorage() override;

    [[nodiscard]] std::shared_ptr<FileContainer> createFileContainerForWriting() override;
    [[nodiscard]] std::vector<std::shared_ptr<FileContainer>> getAvailableSessionHandles() override;
    void closeSessionWithFileContainer(std::shared_ptr<FileContainer> container) override;
    bool deleteSessionWithFileContainer(const std::shared_ptr<FileContainer>& container) override;
    [[nodiscard]] Waiting waiting() const override { return {.files = _waitingFiles, .bytes = _waitingBytes}; }

    [[nodiscard]] const std::string& version() const { return _version; }

private:
    struct NewFile;

    [[nodiscard]] std::shared_ptr<platform::Directory> _cacheDirectory() const;
    void _scanCacheDirectory();
    [[nodiscard]] std::shared_ptr<FileContainer> _found(platform::Directory& directory, const std::string& name);
    [[nodiscard]] std::optional<NewFile> _newFileUrl();
    void _removeOldestBeyondLimits() ORX_REQUIRES(_queue);
    void _countWaiting() ORX_REQUIRES(_queue);

    // Constant after construction.
    Assembly& _assembly;
    const std::string _version;
    const std::uint64_t _maxFileSize;
    const double _maxFileAge;  ///< seconds
    const std::shared_ptr<platform::SerialQueue> _sharedQueue;

    // Synchronised by themselves.
    platform::SerialQueue& _queue;  ///< the shared one
    std::atomic<std::uint32_t> _handleId = 0;
    std::atomic<std::uint64_t> _waitingFiles = 0;
    std::atomic<std::uint64_t> _waitingBytes = 0;

    // On the queue.
    std::vector<std::shared_ptr<FileContainer>> _fileContainers ORX_GUARDED_BY(_queue);  ///< oldest first
};

}  // namespace orvex
