#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/http_session.h"
#include "platform/result.h"

namespace orvex::platform {

class Directory;

enum class TransferDirection : std::uint8_t { upload, download };

/// The life of a background task. A task changes its state on its session's queue only, with a log line a change; to
/// `told` on the delegate queue.
///
///     made ──resume──▶ waiting ◀──────────── a temporary failure, or its network went away
///                        │  ▲                             │
///          its moment    ▼  │ its moment is over          │
///                     beginning ──the delegate answers──▶ running
///                                                         │ final answer, or a failure that is not temporary
///     waiting, beginning, running ──cancel, resource time-out, quota──▶ ended ──the delegate was told──▶ told
///
/// A kill or a reboot takes waiting, beginning and running back to waiting; ended stays ended.
enum class BackgroundTaskState : std::uint8_t {
    made,       ///< nothing is stored; it may still be given settings
    waiting,    ///< stored: for its earliest begin, a network, a cheaper one, mains, a free place, or its next attempt
    beginning,  ///< it was delayed, and its delegate is asked for the request to send
    running,    ///< an attempt is on the wire
    ended,      ///< its end is stored, and goes to the delegate once start-up is through
    told,       ///< the delegate has heard the end; store and spool have forgotten the task
};
[[nodiscard]] std::string_view name(BackgroundTaskState state);

/// Whether an answer says of itself that another attempt may bring another one: 408, 429, 502, 503 and 504.
[[nodiscard]] bool isTemporaryStatus(std::int64_t statusCode);

/// One transfer that outlives the process. The session holds it from `resume` until it is told.
///
/// Threading: callable from any thread.
class BackgroundTask {
public:
    virtual ~BackgroundTask() = default;

    [[nodiscard]] virtual std::uint64_t identifier() const = 0;  ///< in its session, and never used again there
    [[nodiscard]] virtual TransferDirection direction() const = 0;
    [[nodiscard]] virtual BackgroundTaskState state() const = 0;

    /// As it was handed in. Its `timeout` is the longest silence of an attempt; none: the session's `requestTimeout`.
    /// Its `body` is not sent.
    [[nodiscard]] virtual const URLRequest& originalRequest() const = 0;
    /// The original one, or what the delegate put in its place; with the URL of the last redirect once it has ended.
    [[nodiscard]] virtual URLRequest currentRequest() const = 0;
    /// None before the end. With an error: the last answer that came, if any.
    [[nodiscard]] virtual std::optional<URLResponse> response() const = 0;

    /// Stored with the task by `resume`; a later change is not.
    [[nodiscard]] virtual std::uint64_t numberOfFeedbacks() const = 0;
    virtual void setNumberOfFeedbacks(std::uint64_t count) = 0;
    /// Before `resume`. The task is then a delayed one, and its delegate is asked before its first attempt.
    virtual void setEarliestBeginDate(WallTime date) = 0;

    /// Stores the task. On success it is durable, an upload's file has gone to the session, and the session owns both
    /// until the end. On failure nothing has happened to either: ENOENT (no such file), EFBIG (more than the whole
    /// quota), EINVAL (resumed before; a URL, method or header that must not be sent), or the disk's own error.
    [[nodiscard]] virtual Result<void> resume() = 0;
    /// Ends it with `cancelled`, unless it has ended. What was never resumed is not heard of.
    virtual void cancel() = 0;
};

using BackgroundTasks = std::vector<std::shared_ptr<BackgroundTask>>;

/// The bytes of a download, for as long as its delegate's call lasts.
class DownloadedFile {
public:
    virtual ~DownloadedFile() = default;
    [[nodiscard]] virtual std::string path() const = 0;  ///< for log lines
    [[nodiscard]] virtual std::uint64_t size() const = 0;

    /// Replaces the file `name` of `directory` as `Directory::replace` does: as a whole, durably. Once.
    [[nodiscard]] virtual Result<void> moveTo(Directory& directory, std::string_view name) = 0;
};

/// Who hears of a session's tasks: also of those that an earlier process stored. Of each it hears exactly one
/// `didComplete`, before it, of a download that had an answer, one `didFinishDownloading` (whatever its status), and
/// nothing after it. A process that is killed while a delegate hears an end lets the next one hear it again.
///
/// Threading: all calls come on the session's delegate queue, one at a time, never inside a call to the session.
class BackgroundSessionDelegate {
public:
    using Begin = std::move_only_function<void(std::optional<URLRequest> replacement)>;

    virtual ~BackgroundSessionDelegate() = default;

    /// A delayed task is about to begin with `request`. `begin` is called once, from any thread, with the request to
    /// send in its place or with none to let it stand; dropped uncalled, it stands. Heard at most once by a process.
    virtual void willBeginDelayedRequest(const std::shared_ptr<BackgroundTask>& task, const URLRequest& request,
                                         Begin begin);

    struct BodyProgress {
        std::uint64_t bytesSent = 0;       ///< since the last call
        std::uint64_t totalBytesSent = 0;  ///< of this attempt
        std::uint64_t totalBytesExpectedToSend = 0;
    };
    virtual void didSendBodyData(const std::shared_ptr<BackgroundTask>& task, BodyProgress progress);

    virtual void didFinishDownloading(const std::shared_ptr<BackgroundTask>& task, DownloadedFile& file);

    virtual void didComplete(const std::shared_ptr<BackgroundTask>& task, std::optional<TransportError> error) = 0;

    /// The session cannot go on. Its tasks are not heard of again by this process.
    virtual void didBecomeInvalid(std::optional<TransportError> error);
};

/// A task that has not been told, for operators.
struct PendingTransfer {
    std::string identifier;  ///< "SESSION/NUMBER"
    TransferDirection direction = TransferDirection::upload;
    std::string url;
    std::uint64_t bytes = 0;  ///< of an upload's body; of a download those that have come
    WallTime created;
    std::uint32_t attempts = 0;           ///< begun so far
    std::optional<WallTime> nextAttempt;  ///< none: under way, or it waits for no moment
    std::string why;                      ///< what it waits for, or its last failure
};

struct BackgroundSessionConfiguration {
    std::string identifier;      ///< names its store and spool; the same at every start
    bool discretionary = false;  ///< waits for mains, as long as a task's time window (one day without one) is open
    bool allowsExpensiveNetworkAccess = true;                     ///< false: its tasks wait for an unmetered network
    std::chrono::seconds requestTimeout{60};                      ///< the longest silence of an attempt
    std::chrono::seconds resourceTimeout = std::chrono::days{7};  ///< of a task, from `resume` to its end
    std::size_t maxTasks = 10'000;                                ///< beyond it, the oldest ends with an error
    std::uint64_t maxSpoolBytes = 256u << 20;                     ///< of bodies; as `maxTasks`
    std::size_t maxDownloadBytes = 64u << 20;                     ///< decoded; a longer one fails for good
    std::string certificateAuthorityFile;                         ///< PEM; empty: the system's
};

/// Transfers that survive a kill and a reboot, and are tried again until they have an end (docs/transfers.md).
///
/// At most four attempts run at once. Temporary are the failures of the transport, and the answers 408, 429, 502, 503
/// and 504; after one the whole session backs off, and one task probes alone. Every other answer is the task's end.
///
/// Threading: callable from any thread. What is stored here is taken up by the next session of that identifier.
class BackgroundSession {
public:
    virtual ~BackgroundSession() = default;

    /// `file` is a path in the state directory, as `tmp/NAME`; `resume` takes it from there.
    [[nodiscard]] virtual std::shared_ptr<BackgroundTask> uploadTask(URLRequest request, std::string file) = 0;
    [[nodiscard]] virtual std::shared_ptr<BackgroundTask> downloadTask(URLRequest request) = 0;

    /// Those that were resumed and have not ended, oldest first, on the delegate queue.
    virtual void getAllTasks(std::move_only_function<void(BackgroundTasks tasks)> completion) = 0;

    [[nodiscard]] virtual std::vector<PendingTransfer> pendingTransfers() const = 0;
};

/// Makes background sessions; the assembly asks once for each.
class BackgroundSessionFactory {
public:
    virtual ~BackgroundSessionFactory() = default;

    /// The stored tasks go on from here. Ends are told while `delegate` lives.
    [[nodiscard]] virtual std::shared_ptr<BackgroundSession> makeSession(
        BackgroundSessionConfiguration configuration, std::weak_ptr<BackgroundSessionDelegate> delegate) = 0;

    /// Whether an earlier process left tasks under this identifier: such a session is to be made at the end of
    /// start-up.
    [[nodiscard]] virtual bool hasStoredTasks(std::string_view identifier) = 0;

    /// From now on the delegates of all sessions hear of ends.
    virtual void startUpIsThrough() = 0;
};

}  // namespace orvex::platform
