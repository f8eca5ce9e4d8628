#include "platform/linux/file_watcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <vector>

#include "platform/linux/system_failure.h"
#include "platform/log.h"

// inotify watches directories, and only ones that exist. A target whose directory is missing is armed at the nearest
// directory above it and moves down as the missing ones appear, and up again when they go. Several targets may share
// one inotify descriptor, since the kernel has one for each directory; all use the same mask, as the last one given
// holds.

namespace orvex::platform {
namespace {

constexpr std::uint32_t watchedEvents =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t directoryGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;
constexpr std::uint32_t fileChanged = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;

std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == 0 || slash == path.npos ? "/" : path.substr(0, slash);
}

/// The part of `path` that stands right below its ancestor `above`.
std::string_view nextPart(std::string_view path, std::string_view above) {
    path.remove_prefix(above == "/" ? 1 : above.size() + 1);
    return path.substr(0, path.find('/'));
}

}  // namespace

struct FileWatcher::Event {
    int descriptor;
    std::uint32_t mask;
    std::string_view name;
};

FileWatcher::FileWatcher()
    : _inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      _stop(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (_inotify.valid() && _stop.valid()) return;
    defaultLogger().error("{}", systemFailure(errno, "watch files").error().text);
    _inotify.reset();
}

FileWatcher::~FileWatcher() {
    std::thread thread;
    {
        const MutexLock lock(_mutex);
        thread = std::move(_thread);
    }
    if (!thread.joinable()) return;
    const std::uint64_t one = 1;
    while (::write(_stop.get(), &one, sizeof one) < 0 && errno == EINTR) continue;
    thread.join();
}

std::unique_ptr<FileWatcher::Watch> FileWatcher::watch(std::string directory, std::string name, Handler handler) {
    const MutexLock lock(_mutex);
    const std::uint64_t id = ++_lastId;
    Target& target = _targets[id];
    target.directory = std::move(directory);
    target.name = std::move(name);
    target.handler = std::make_shared<Handler>(std::move(handler));
    if (_inotify.valid()) {
        _arm(target);
        if (!_thread.joinable()) {
            _thread = std::thread([this] { _run(); });
            _threadId = _thread.get_id();
        }
    }
    return std::make_unique<Watch>(*this, id);
}

void FileWatcher::_run() {
    std::array<pollfd, 2> polled{{{_inotify.get(), POLLIN, 0}, {_stop.get(), POLLIN, 0}}};
    while (true) {
        if (::poll(polled.data(), polled.size(), -1) < 0 && errno != EINTR) return;
        if (polled[1].revents != 0) return;
        _takeEvents();
    }
}

void FileWatcher::_takeEvents() {
    alignas(inotify_event) std::array<char, 16 * 1024> buffer;
    const auto length = ::read(_inotify.get(), buffer.data(), buffer.size());
    for (ssize_t at = 0; at < length;) {
        inotify_event event;
        std::memcpy(&event, buffer.data() + at, sizeof event);
        const char* name = buffer.data() + at + sizeof event;
        _take({event.wd, event.mask, event.len > 0 ? std::string_view(name) : std::string_view()});
        at += static_cast<ssize_t>(sizeof event + event.len);
    }
}

void FileWatcher::_take(const Event& event) {
    std::vector<std::uint64_t> concerned;
    {
        const MutexLock lock(_mutex);
        for (auto& [id, target] : _targets)
            if (_concerns(target, event)) concerned.push_back(id);
    }
    for (const auto id : concerned) _call(id);
}

bool FileWatcher::_concerns(Target& target, const Event& event) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
        _arm(target);
        return true;
    }
    if (event.descriptor != target.descriptor) return false;
    const bool atHome = target.armedAt == target.directory;
    if ((event.mask & directoryGone) != 0) {
        if ((event.mask & IN_IGNORED) != 0) target.descriptor = -1;  // the kernel has let go of it
        _arm(target);
        return atHome || target.armedAt == target.directory;
    }
    if (atHome) return (event.mask & fileChanged) != 0 && (target.name.empty() || event.name == target.name);
    if (event.name != nextPart(target.directory, target.armedAt)) return false;
    _arm(target);
    return target.armedAt == target.directory;  // the file may be there already
}

void FileWatcher::_arm(Target& target) {
    _disarm(target);
    for (std::string path = target.directory;; path = parentOf(path)) {
        target.descriptor = ::inotify_add_watch(_inotify.get(), path.c_str(), watchedEvents);
        if (target.descriptor >= 0) {
            target.armedAt = path;
            if (path == target.directory) return;
            // What is missing may have come before the watch on its parent did.
            const std::filesystem::path next = std::filesystem::path(path) / nextPart(target.directory, path);
            std::error_code ignored;
            if (!std::filesystem::is_directory(next, ignored)) return;
            _disarm(target);
            path = target.directory + "/";  // from the bottom again
            continue;
        }
        if (errno != ENOENT && errno != ENOTDIR) {
            defaultLogger().error("{}", systemFailure(errno, fmt::format("watch {}", path)).error().text);
            return;
        }
        if (path == "/") return;
    }
}

void FileWatcher::_disarm(Target& target) {
    const int descriptor = std::exchange(target.descriptor, -1);
    if (descriptor < 0) return;
    for (const auto& [id, other] : _targets)
        if (other.descriptor == descriptor) return;
    ::inotify_rm_watch(_inotify.get(), descriptor);
}

void FileWatcher::_call(std::uint64_t id) {
    std::shared_ptr<Handler> handler;
    {
        const MutexLock lock(_mutex);
        const auto found = _targets.find(id);
        if (found == _targets.end()) return;
        handler = found->second.handler;
        _running = id;
    }
    (*handler)();
    const MutexLock lock(_mutex);
    _running = 0;
    _handlerReturned.notify_all();
}

void FileWatcher::_end(std::uint64_t id) {
    const MutexLock lock(_mutex);
    const auto found = _targets.find(id);
    if (found == _targets.end()) return;
    _disarm(found->second);
    _targets.erase(found);
    while (_running == id && std::this_thread::get_id() != _threadId) _handlerReturned.wait(_mutex);
}

}  // namespace orvex::platform
