#include "platform/linux/process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "platform/linux/steady_time.h"
#include "platform/linux/system_failure.h"
#include "platform/log.h"
#include "platform/log_events.h"

namespace orvex::platform {

namespace {

constexpr std::array readSignals{SIGINT, SIGTERM, SIGHUP};

sigset_t signalSet() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : readSignals) sigaddset(&set, signal);
    return set;
}

void setDisposition(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

void openStandardDescriptors() {
    int opened = 0;
    while (opened >= 0 && opened <= STDERR_FILENO) opened = ::open("/dev/null", O_RDWR);
    if (opened > STDERR_FILENO) ::close(opened);
}

/// The process number that the holder of the lock has left, for the message alone.
std::string holderOf(int descriptor) {
    std::array<char, 32> text{};
    const auto size = ::pread(descriptor, text.data(), text.size(), 0);
    const auto end = size < 0 ? text.begin() : text.begin() + size;
    return {text.begin(),
            std::find_if_not(text.begin(), end, [](char letter) { return letter >= '0' && letter <= '9'; })};
}

void leaveNumber(int descriptor) {
    const auto number = fmt::format("{}\n", ::getpid());
    if (::ftruncate(descriptor, 0) != 0 || ::pwrite(descriptor, number.data(), number.size(), 0) < 0) {
        defaultLogger().info("the lock file does not take our process number: {}", strerrordesc_np(errno));
    }
}

/// The error number; 0: locked. flock(2) has no time limit, so it is asked again at intervals that grow to 100 ms.
int lockWithin(int descriptor, std::chrono::milliseconds patience) {
    const auto deadline = steadyNow() + patience;
    std::chrono::milliseconds interval(5);
    while (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (const int code = errno; code != EWOULDBLOCK || steadyNow() >= deadline) return code;
        std::this_thread::sleep_for(interval);
        interval = std::min(2 * interval, std::chrono::milliseconds(100));
    }
    return 0;
}

bool isOurRegularFile(int descriptor) {
    struct stat status = {};
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid();
}

}  // namespace

void prepareProcess() {
    openStandardDescriptors();
    ::umask(0077);
    setDisposition(SIGPIPE, SIG_IGN);
    setDisposition(SIGXFSZ, SIG_IGN);
    // A shell starts its background jobs with SIGINT ignored, and an ignored signal is dropped even while blocked.
    for (const int signal : readSignals) setDisposition(signal, SIG_DFL);
    const auto set = signalSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

Result<std::unique_ptr<SignalSource>> SignalSource::create() {
    const auto set = signalSet();
    FileDescriptor signals(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals.valid()) return systemFailure(errno, "read signals");
    FileDescriptor end(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!end.valid()) return systemFailure(errno, "read signals");
    return std::unique_ptr<SignalSource>(new SignalSource(std::move(signals), std::move(end)));
}

SignalSource::SignalSource(FileDescriptor signals, FileDescriptor end)
    : _signals(std::move(signals)),
      _end(std::move(end)),
      _thread([this] { _serve(); }) {}

SignalSource::~SignalSource() {
    ::eventfd_write(_end.get(), 1);
    _thread.join();
}

void SignalSource::handOver(Dispatcher& dispatcher, std::function<void(int)> onSignal) {
    const MutexLock lock(_mutex);
    _dispatcher = &dispatcher;
    _onSignal = std::move(onSignal);
}

void SignalSource::_serve() {
    pthread_setname_np(pthread_self(), "orvex-signals");
    for (;;) {
        std::array<pollfd, 2> sources{pollfd{_signals.get(), POLLIN, 0}, pollfd{_end.get(), POLLIN, 0}};
        if (::poll(sources.data(), sources.size(), -1) < 0) continue;  // EINTR is all that can happen here
        if (sources[1].revents != 0) return;
        if (sources[0].revents != 0) _read();
    }
}

void SignalSource::_read() {
    signalfd_siginfo info = {};
    while (::read(_signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        const int signal = static_cast<int>(info.ssi_signo);
        if (signal == SIGHUP) {
            defaultLogger().log("SIGHUP is ignored");
            continue;
        }
        defaultLogger()
            .as(LogEvent::stopping, {{"ORVEX_SIGNAL", signal}})
            .log("received signal {} from process {}", signal, info.ssi_pid);
        _stop(signal);
    }
}

void SignalSource::_stop(int signal) {
    const MutexLock lock(_mutex);
    if (_dispatcher == nullptr) exitNow(0);
    _dispatcher->submit(Priority::standard, [onSignal = _onSignal, signal] { onSignal(signal); });
}

Result<LockFile> LockFile::take(const std::filesystem::path& file, std::chrono::milliseconds patience) {
    FileDescriptor opened(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (!opened.valid()) return systemFailure(errno, fmt::format("open the lock file {}", file.string()));
    if (!isOurRegularFile(opened.get())) {
        return failure(EPERM, fmt::format("the lock file {} is not a file of ours", file.string()));
    }
    int code = lockWithin(opened.get(), std::chrono::milliseconds(0));
    if (code == EWOULDBLOCK) {
        const auto holder = fmt::format("another daemon (process {}) holds {}", holderOf(opened.get()), file.string());
        defaultLogger().log("{}; waiting for it to leave", holder);
        code = lockWithin(opened.get(), patience);
        if (code == EWOULDBLOCK) return failure(code, holder);
    }
    if (code != 0) return systemFailure(code, fmt::format("lock {}", file.string()));
    leaveNumber(opened.get());
    return LockFile(std::move(opened));
}

void exitNow(int status) {
    flushLog();
    ::_exit(status);
}

}  // namespace orvex::platform
