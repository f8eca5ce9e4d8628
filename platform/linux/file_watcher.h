#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "platform/file_manager.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// Tells when a named file in a directory was written and closed, put in place, moved away or removed. The file need
/// not be there, nor its directory, nor the directories above: what is missing is waited for. Creation alone is no
/// change, since the file is then about to be written.
///
/// Threading: `watch` from any thread. Handlers are called on the watcher's one thread, which is started by the first
/// watch and sleeps while nothing happens; they should be short. A handler may end its own watch and begin others.
/// One change may be told twice, and several that come close together once.
/// Limits: a directory that is moved because one above it is renamed is not noticed. Where the system has no inotify to
/// give, an error is logged and nothing is told.
class FileWatcher {
public:
    using Handler = std::function<void()>;

    /// Ends the watch with its destructor, which waits for a handler that runs on the watcher's thread. It must not
    /// outlive the watcher.
    class Watch {
    public:
        Watch(FileWatcher& owner, std::uint64_t id) : _owner(owner), _id(id) {}
        ~Watch() { _owner._end(_id); }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

    private:
        FileWatcher& _owner;
        const std::uint64_t _id;
    };

    FileWatcher();
    ~FileWatcher();
    FileWatcher(const FileWatcher&) = delete;
    FileWatcher& operator=(const FileWatcher&) = delete;

    /// `directory` is an absolute path without a slash at its end. An empty `name` means any file in it.
    [[nodiscard]] std::unique_ptr<Watch> watch(std::string directory, std::string name, Handler handler);

private:
    struct Target {
        std::string directory;
        std::string name;
        std::shared_ptr<Handler> handler;
        int descriptor = -1;  ///< inotify's, of `armedAt`; -1 when nothing could be watched
        std::string armedAt;  ///< `directory`, or the nearest directory above it that exists
    };
    struct Event;

    void _run();
    void _takeEvents();
    void _take(const Event& event);
    /// Whether the event is a change of the file; arms anew where the directories have changed.
    bool _concerns(Target& target, const Event& event) ORX_REQUIRES(_mutex);
    void _arm(Target& target) ORX_REQUIRES(_mutex);
    void _disarm(Target& target) ORX_REQUIRES(_mutex);
    void _call(std::uint64_t id);
    void _end(std::uint64_t id);

    // Constant after construction.
    FileDescriptor _inotify;
    FileDescriptor _stop;  ///< readable once the thread shall end

    mutable Mutex _mutex;
    std::condition_variable_any _handlerReturned;
    std::map<std::uint64_t, Target> _targets ORX_GUARDED_BY(_mutex);
    std::uint64_t _lastId ORX_GUARDED_BY(_mutex) = 0;
    std::uint64_t _running ORX_GUARDED_BY(_mutex) = 0;  ///< the watch whose handler runs; 0 for none
    std::thread _thread ORX_GUARDED_BY(_mutex);
    std::thread::id _threadId ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex::platform
