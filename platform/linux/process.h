#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "platform/dispatch.h"
#include "platform/file_manager.h"
#include "platform/result.h"
#include "platform/thread_annotations.h"

/// What the daemon asks of its own process. In the order of `main`: `prepareProcess`, a `SignalSource`,
/// `LockFile::take`, `exitNow`.
namespace orvex::platform {

/// Standard descriptors that were closed lead nowhere, so that no log line lands in a file that got their number; files
/// are ours alone (umask 0077); a write to a closed socket or beyond a size limit is an error, not a death;
/// SIGINT, SIGTERM and SIGHUP are blocked for a `SignalSource` to read. For `main`'s first line: threads that exist
/// already would still take the signals.
void prepareProcess();

/// Reads the signals that `prepareProcess` has blocked, on a thread of its own that otherwise sleeps. SIGHUP is logged
/// and ignored. One a process.
///
///     starting ──handOver──▶ serving
///
/// starting: SIGINT and SIGTERM end the process at once with status 0, since a start may wait long (for a daemon that
/// leaves, for a bus that does not answer) and has begun nothing that a kill would harm; serving: they go to the
/// handler.
class SignalSource {
public:
    static Result<std::unique_ptr<SignalSource>> create();
    ~SignalSource();  ///< a call that is submitted already still comes
    SignalSource(const SignalSource&) = delete;
    SignalSource& operator=(const SignalSource&) = delete;

    /// `onSignal` is called on the pool (standard priority) with the signal's number, perhaps more than once. Once.
    void handOver(Dispatcher& dispatcher, std::function<void(int)> onSignal);

private:
    SignalSource(FileDescriptor signals, FileDescriptor end);
    void _serve();
    void _read();
    void _stop(int signal);

    const FileDescriptor _signals;  ///< a signalfd
    const FileDescriptor _end;      ///< an eventfd

    Mutex _mutex;
    Dispatcher* _dispatcher ORX_GUARDED_BY(_mutex) = nullptr;  ///< none: starting
    std::function<void(int)> _onSignal ORX_GUARDED_BY(_mutex);

    std::thread _thread;
};

/// The right to be the one daemon over a state directory: an flock(2) on a file there, which ends with the process
/// however that ends. The file stays and holds our process number, for people to read.
class LockFile {
public:
    /// Waits for a daemon that is leaving, at most `patience`, and says so in the log. Fails with EWOULDBLOCK when
    /// another one stays, with the system's number when the file cannot be opened, or is no regular file of ours. The
    /// directory must exist.
    static Result<LockFile> take(const std::filesystem::path& file,
                                 std::chrono::milliseconds patience = std::chrono::seconds(10));

private:
    explicit LockFile(FileDescriptor file) : _file(std::move(file)) {}

    FileDescriptor _file;
};

/// Writes what is logged and ends the process without destructors: its threads may go on to the last.
[[noreturn]] void exitNow(int status);

}  // namespace orvex::platform
