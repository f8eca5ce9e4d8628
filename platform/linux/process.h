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

/// What the daemon asks of its own process. In the order of `main`: `prepareProcess`, `LockFile::take`, a
/// `SignalSource` once there is a dispatcher, `exitNow`.
namespace orvex::platform {

/// Files are ours alone (umask 0077); a write to a closed socket or beyond a size limit is an error, not a death;
/// SIGINT, SIGTERM and SIGHUP are blocked for a `SignalSource` to read. For `main`'s first line: threads that exist
/// already would still take the signals.
void prepareProcess();

/// Reads the signals that `prepareProcess` has blocked, on a thread of its own that otherwise sleeps. SIGINT and
/// SIGTERM go to the handler; SIGHUP is logged and ignored. One a process.
class SignalSource {
public:
    /// `onSignal` is called on the pool (standard priority) with the signal's number, perhaps more than once.
    static Result<std::unique_ptr<SignalSource>> create(Dispatcher& dispatcher, std::function<void(int)> onSignal);
    ~SignalSource();  ///< a call that is submitted already still comes
    SignalSource(const SignalSource&) = delete;
    SignalSource& operator=(const SignalSource&) = delete;

private:
    SignalSource(Dispatcher& dispatcher, std::function<void(int)> onSignal, FileDescriptor signals,
                 FileDescriptor stop);
    void _serve();
    void _read();

    Dispatcher& _dispatcher;
    const std::function<void(int)> _onSignal;
    const FileDescriptor _signals;  ///< a signalfd
    const FileDescriptor _stop;     ///< an eventfd
    std::thread _thread;
};

/// The right to be the one daemon over a state directory: an flock(2) on a file there, which ends with the process
/// however that ends. The file stays and holds our process number, for people to read.
class LockFile {
public:
    /// Waits for a daemon that is leaving, at most `patience`. Fails with EWOULDBLOCK when another one stays, with the
    /// system's number when the file cannot be opened, or is no regular file of ours. The directory must exist.
    static Result<LockFile> take(const std::filesystem::path& file,
                                 std::chrono::milliseconds patience = std::chrono::seconds(10));

private:
    explicit LockFile(FileDescriptor file) : _file(std::move(file)) {}

    FileDescriptor _file;
};

/// Writes what is logged and ends the process without destructors: its threads may go on to the last.
[[noreturn]] void exitNow(int status);

}  // namespace orvex::platform
