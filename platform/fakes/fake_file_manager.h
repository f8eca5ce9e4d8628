#pragma once

#include <atomic>
#include <map>
#include <memory>

#include "platform/file_manager.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// The three directories in memory, with the manners of the real ones. Files outlive every handle, as on a disk.
/// A symbolic link, a FIFO and the like cannot be made here; they are the real file manager's own tests.
class FakeFileManager final : public FileManager {
public:
    FakeFileManager();

    [[nodiscard]] Result<std::shared_ptr<Directory>> cachesDirectory() override;
    [[nodiscard]] Result<std::shared_ptr<Directory>> stateDirectory() override;
    [[nodiscard]] Result<std::shared_ptr<Directory>> configurationDirectory() override;

    /// While false, every directory that is asked for fails with EACCES; handles that were given out go on.
    void setAvailable(bool available);
    /// From now on the caches directory is that of `fileManager`: for a component whose file is opened by its path, as
    /// SQLite does it.
    void serveCachesFrom(FileManager& fileManager);
    /// The time stamp of what is written from now on; at first 1970.
    void setTime(WallTime time);

private:
    friend class FakeAppendFile;
    friend class FakeDirectory;
    struct Node {
        bool directory = false;
        std::string bytes;
        WallTime created;
        WallTime modified;
    };
    /// Shared by every handle. Paths are full ones, "/caches/a/b"; a directory stands before what lies in it.
    struct Tree {
        Mutex mutex;
        std::map<std::string, std::shared_ptr<Node>> nodes ORX_GUARDED_BY(mutex);  ///< an open file shares its own
        WallTime time ORX_GUARDED_BY(mutex);
        bool available ORX_GUARDED_BY(mutex) = true;
    };
    [[nodiscard]] Result<std::shared_ptr<Directory>> _top(std::string path);

    const std::shared_ptr<Tree> _tree;
    std::atomic<FileManager*> _caches = nullptr;
};

}  // namespace orvex::platform
