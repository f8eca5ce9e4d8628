#pragma once

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/file_manager.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

enum class DirectoryFault {
    writeFails,     ///< of `replace`, `append` and `createFile`: no byte is written, ENOSPC
    writeTears,     ///< of `replace`: half of the bytes stay behind in a temporary file, as after a crash, EIO;
                    ///< of `append`: half of the bytes stay behind at the end, ENOSPC
    truncateFails,  ///< of an append file: nothing has changed, EIO
    syncFails,      ///< of an append file: the change is seen but not durable, EIO
};

/// Which operations of a `FaultyDirectory` fail. A test that injects a fault also checks that `injected` counted it.
///
/// Threading: callable from any thread.
class FaultPlan {
public:
    /// The `nth` operation from now on (1 is the next) that can fail like that does. Several may wait at a time.
    void inject(DirectoryFault fault, std::size_t nth = 1);
    [[nodiscard]] std::size_t injected() const;

private:
    friend class FaultyAppendFile;
    friend class FaultyDirectory;
    struct Waiting {
        DirectoryFault fault;
        std::size_t remaining;
    };

    /// Counts one operation that can fail in these ways.
    std::optional<DirectoryFault> _next(std::initializer_list<DirectoryFault> possible);

    mutable Mutex _mutex;
    std::vector<Waiting> _waiting ORX_GUARDED_BY(_mutex);
    std::size_t _injected ORX_GUARDED_BY(_mutex) = 0;
};

/// Any directory, with faults. Directories below it share its plan.
class FaultyDirectory final : public Directory {
public:
    FaultyDirectory(std::shared_ptr<Directory> inner, std::shared_ptr<FaultPlan> plan)
        : _inner(std::move(inner)),
          _plan(std::move(plan)) {}

    [[nodiscard]] std::string path() const override { return _inner->path(); }
    [[nodiscard]] Result<std::string> read(std::string_view name, std::size_t maxBytes) const override;
    [[nodiscard]] Result<OpenFile> openFile(std::string_view name) const override;
    [[nodiscard]] Result<void> replace(std::string_view name, std::string_view bytes) override;
    [[nodiscard]] Result<std::shared_ptr<AppendFile>> createFile(std::string_view name) override;
    [[nodiscard]] Result<void> remove(std::string_view name) override;
    [[nodiscard]] Result<void> rename(std::string_view from, std::string_view to) override;
    [[nodiscard]] Result<void> makeDirectory(std::string_view name) override;
    [[nodiscard]] Result<FileAttributes> attributes(std::string_view name) const override;
    [[nodiscard]] Result<std::vector<std::string>> list(std::string_view name) const override;
    [[nodiscard]] Result<std::shared_ptr<Directory>> directory(std::string_view name) override;

private:
    // Constant after construction.
    const std::shared_ptr<Directory> _inner;
    const std::shared_ptr<FaultPlan> _plan;
};

/// A file manager whose directories are faulty by one plan.
class FaultyFileManager final : public FileManager {
public:
    explicit FaultyFileManager(FileManager& inner) : _inner(inner) {}

    [[nodiscard]] FaultPlan& plan() { return *_plan; }
    [[nodiscard]] Result<std::shared_ptr<Directory>> cachesDirectory() override;
    [[nodiscard]] Result<std::shared_ptr<Directory>> stateDirectory() override;
    [[nodiscard]] Result<std::shared_ptr<Directory>> configurationDirectory() override;

private:
    [[nodiscard]] Result<std::shared_ptr<Directory>> _wrap(Result<std::shared_ptr<Directory>> inner);

    FileManager& _inner;
    const std::shared_ptr<FaultPlan> _plan = std::make_shared<FaultPlan>();
};

}  // namespace orvex::platform
