#include "platform/fakes/fake_background_session.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "platform/file_manager.h"
#include "platform/url.h"

namespace orvex::platform {
namespace {

constexpr std::size_t largestBody = 64u << 20;

[[noreturn]] void misuse(const char* what) {
    fmt::print(stderr, "FakeBackgroundSession: {}\n", what);
    std::abort();
}

class FakeDownloadedFile final : public DownloadedFile {
public:
    explicit FakeDownloadedFile(std::string bytes) : _bytes(std::move(bytes)) {}
    [[nodiscard]] std::string path() const override { return "/state/download"; }
    [[nodiscard]] std::uint64_t size() const override { return _bytes.size(); }
    [[nodiscard]] Result<void> moveTo(Directory& directory, std::string_view name) override {
        return directory.replace(name, _bytes);
    }

private:
    const std::string _bytes;
};

}  // namespace

class FakeBackgroundTask final : public BackgroundTask, public std::enable_shared_from_this<FakeBackgroundTask> {
public:
    using State = BackgroundTaskState;

    FakeBackgroundTask(std::weak_ptr<FakeBackgroundSession> session, SerialQueue& queue, std::uint64_t identifier,
                       TransferDirection direction, URLRequest request, std::string file)
        : _session(std::move(session)),
          _identifier(identifier),
          _direction(direction),
          _request(std::move(request)),
          _file(std::move(file)),
          _timer(queue),
          _current(_request) {}

    [[nodiscard]] std::uint64_t identifier() const override { return _identifier; }
    [[nodiscard]] TransferDirection direction() const override { return _direction; }
    [[nodiscard]] const URLRequest& originalRequest() const override { return _request; }

    [[nodiscard]] State state() const override {
        const MutexLock lock(_mutex);
        return _state;
    }
    [[nodiscard]] URLRequest currentRequest() const override {
        const MutexLock lock(_mutex);
        return _current;
    }
    [[nodiscard]] std::optional<URLResponse> response() const override {
        const MutexLock lock(_mutex);
        return _response;
    }
    [[nodiscard]] std::uint64_t numberOfFeedbacks() const override {
        const MutexLock lock(_mutex);
        return _numberOfFeedbacks;
    }
    void setNumberOfFeedbacks(std::uint64_t count) override {
        const MutexLock lock(_mutex);
        _numberOfFeedbacks = count;
    }
    void setEarliestBeginDate(WallTime date) override {
        const MutexLock lock(_mutex);
        if (_state != State::made) misuse("setEarliestBeginDate after resume");
        _earliestBegin = date;
    }

    [[nodiscard]] Result<void> resume() override {
        const auto session = _session.lock();
        if (!session) misuse("a task was resumed after its session");
        if (state() != State::made) return failure(EINVAL, "resumed before");
        auto body = session->_store(shared_from_this(), _file);
        if (!body) return std::unexpected(body.error());
        {
            const MutexLock lock(_mutex);
            _body = *std::move(body);
            _state = State::waiting;
        }
        _scheduleBegin(*session);
        return {};
    }

    void cancel() override {
        const auto session = _session.lock();
        if (!session || state() == State::made) return;
        session->_end(shared_from_this(), {.error = TransportError{TransportError::cancelled, "cancelled"}});
    }

    /// False: it has ended. The first end counts.
    bool moveTo(State to) {
        const MutexLock lock(_mutex);
        if (_state >= State::ended && to <= State::ended) return false;
        _state = to;
        return true;
    }
    void replaceRequest(URLRequest request) {
        const MutexLock lock(_mutex);
        _current = std::move(request);
    }
    void setResponse(URLResponse response) {
        const MutexLock lock(_mutex);
        _current.url = response.url;
        _response = std::move(response);
    }
    [[nodiscard]] bool isDelayed() const {
        const MutexLock lock(_mutex);
        return _earliestBegin.has_value();
    }
    [[nodiscard]] std::string body() const {
        const MutexLock lock(_mutex);
        return _body;
    }
    [[nodiscard]] std::uint64_t countSent(std::uint64_t bytes) {
        const MutexLock lock(_mutex);
        const std::uint64_t before = _bytesSent;
        _bytesSent = std::min<std::uint64_t>(_bytesSent + bytes, _body.size());
        return before;
    }
    [[nodiscard]] std::uint64_t bytesSent() const {
        const MutexLock lock(_mutex);
        return _bytesSent;
    }

private:
    void _scheduleBegin(FakeBackgroundSession& session) {
        const MutexLock lock(_mutex);
        const auto now = session._delegateQueue->dispatcher().wallNow();
        const auto delay =
            _earliestBegin ? std::max(*_earliestBegin - now, std::chrono::nanoseconds{0}) : std::chrono::nanoseconds{0};
        _timer.armAfter(delay, [weak = weak_from_this(), owner = _session] {
            const auto task = weak.lock();
            const auto made = owner.lock();
            if (task && made) made->_begin(task);
        });
    }

    // Constant after construction.
    const std::weak_ptr<FakeBackgroundSession> _session;
    const std::uint64_t _identifier;
    const TransferDirection _direction;
    const URLRequest _request;
    const std::string _file;

    // Synchronised by itself.
    Timer _timer;

    // Guarded by the mutex.
    mutable Mutex _mutex;
    State _state ORX_GUARDED_BY(_mutex) = State::made;
    URLRequest _current ORX_GUARDED_BY(_mutex);
    std::optional<URLResponse> _response ORX_GUARDED_BY(_mutex);
    std::optional<WallTime> _earliestBegin ORX_GUARDED_BY(_mutex);
    std::uint64_t _numberOfFeedbacks ORX_GUARDED_BY(_mutex) = 0;
    std::string _body ORX_GUARDED_BY(_mutex);
    std::uint64_t _bytesSent ORX_GUARDED_BY(_mutex) = 0;
};

FakeBackgroundSession::FakeBackgroundSession(Dispatcher& dispatcher, FileManager& files,
                                             BackgroundSessionConfiguration configuration,
                                             std::weak_ptr<BackgroundSessionDelegate> delegate)
    : _files(files),
      _configuration(std::move(configuration)),
      _delegate(std::move(delegate)),
      _delegateQueue(std::make_shared<SerialQueue>(dispatcher, _configuration.identifier + ".delegate")) {}

FakeBackgroundSession::~FakeBackgroundSession() { _delegateQueue->close(); }

std::shared_ptr<FakeBackgroundTask> FakeBackgroundSession::_makeTask(TransferDirection direction, URLRequest request,
                                                                     std::string file) {
    const MutexLock lock(_mutex);
    return std::make_shared<FakeBackgroundTask>(weak_from_this(), *_delegateQueue, ++_lastIdentifier, direction,
                                                std::move(request), std::move(file));
}

std::shared_ptr<BackgroundTask> FakeBackgroundSession::uploadTask(URLRequest request, std::string file) {
    return _makeTask(TransferDirection::upload, std::move(request), std::move(file));
}

std::shared_ptr<BackgroundTask> FakeBackgroundSession::downloadTask(URLRequest request) {
    return _makeTask(TransferDirection::download, std::move(request), {});
}

void FakeBackgroundSession::getAllTasks(std::move_only_function<void(BackgroundTasks tasks)> completion) {
    _delegateQueue->async([weak = weak_from_this(), completion = std::move(completion)]() mutable {
        const auto self = weak.lock();
        if (!self) return;
        BackgroundTasks tasks;
        {
            const MutexLock lock(self->_mutex);
            tasks.assign(self->_tasks.begin(), self->_tasks.end());
        }
        completion(std::move(tasks));
    });
}

std::vector<PendingTransfer> FakeBackgroundSession::pendingTransfers() const {
    const MutexLock lock(_mutex);
    std::vector<PendingTransfer> pending;
    for (const auto& task : _tasks)
        pending.push_back({.identifier = fmt::format("{}/{}", _configuration.identifier, task->identifier()),
                           .direction = task->direction(),
                           .url = task->currentRequest().url,
                           .bytes = task->body().size(),
                           .created = {},
                           .nextAttempt = {},
                           .why = std::string(name(task->state()))});
    return pending;
}

Result<std::string> FakeBackgroundSession::_store(const std::shared_ptr<FakeBackgroundTask>& task,
                                                  const std::string& file) {
    if (const auto url = parseAcceptableURL(task->originalRequest().url); !url)
        return failure(EINVAL, url.error().text);
    if (const auto part = unsendablePart(task->originalRequest())) return failure(EINVAL, *part);
    {
        const MutexLock lock(_mutex);
        if (const auto refusal = std::exchange(_refusal, std::nullopt)) return std::unexpected(*refusal);
    }
    std::string body;
    if (task->direction() == TransferDirection::upload) {
        auto state = _files.stateDirectory();
        if (!state) return std::unexpected(state.error());
        auto read = (*state)->read(file, largestBody);
        if (!read) return std::unexpected(read.error());
        if (auto removed = (*state)->remove(file); !removed) return std::unexpected(removed.error());
        body = *std::move(read);
    }
    const MutexLock lock(_mutex);
    _tasks.push_back(task);
    return body;
}

void FakeBackgroundSession::_begin(const std::shared_ptr<FakeBackgroundTask>& task) {
    const auto delegate = _delegate.lock();
    if (!task->isDelayed() || !delegate) return _send(task, task->originalRequest());
    if (!task->moveTo(BackgroundTaskState::beginning)) return;
    delegate->willBeginDelayedRequest(
        task, task->originalRequest(), [weak = weak_from_this(), task](std::optional<URLRequest> replacement) {
            const auto self = weak.lock();
            if (!self) return;
            self->_delegateQueue->async([weak, task, request = replacement.value_or(task->originalRequest())] {
                if (const auto session = weak.lock()) session->_send(task, request);
            });
        });
}

void FakeBackgroundSession::_send(const std::shared_ptr<FakeBackgroundTask>& task, URLRequest request) {
    if (!task->moveTo(BackgroundTaskState::running)) return;
    task->replaceRequest(request);
    const Sent sent{task, std::move(request), task->body()};
    Script script;
    {
        const MutexLock lock(_mutex);
        _sent.push_back(sent);
        script = _script;
    }
    if (!script) return;
    if (auto answer = script(sent)) _end(task, *std::move(answer));
}

void FakeBackgroundSession::_end(const std::shared_ptr<FakeBackgroundTask>& task, FakeAnswer answer) {
    if (!answer.error && isTemporaryStatus(answer.statusCode)) misuse("a temporary answer is never heard of");
    if (!task->moveTo(BackgroundTaskState::ended)) return;
    {
        const MutexLock lock(_mutex);
        std::erase(_tasks, task);
    }
    if (!answer.error)
        task->setResponse({.url = answer.url.empty() ? task->currentRequest().url : answer.url,
                           .isHTTP = true,
                           .statusCode = answer.statusCode,
                           .headers = std::move(answer.headers)});
    _delegateQueue->async([delegate = _delegate, task, body = std::move(answer.body), error = std::move(answer.error)] {
        const auto listener = delegate.lock();
        if (!listener) return;
        FakeDownloadedFile file(body);
        if (!error && task->direction() == TransferDirection::download) listener->didFinishDownloading(task, file);
        listener->didComplete(task, error);
        (void)task->moveTo(BackgroundTaskState::told);
    });
}

void FakeBackgroundSession::setScript(Script script) {
    const MutexLock lock(_mutex);
    _script = std::move(script);
}

void FakeBackgroundSession::answer(FakeAnswer answer) { _end(_longestHeld(), std::move(answer)); }

void FakeBackgroundSession::sendBody(std::uint64_t bytes) {
    const auto task = _longestHeld();
    const std::uint64_t before = task->countSent(bytes);
    const BackgroundSessionDelegate::BodyProgress progress{.bytesSent = task->bytesSent() - before,
                                                           .totalBytesSent = task->bytesSent(),
                                                           .totalBytesExpectedToSend = task->body().size()};
    _delegateQueue->async([delegate = _delegate, task, progress] {
        if (const auto listener = delegate.lock()) listener->didSendBodyData(task, progress);
    });
}

void FakeBackgroundSession::refuseNextResume(Failure why) {
    const MutexLock lock(_mutex);
    _refusal = std::move(why);
}

void FakeBackgroundSession::invalidate(std::optional<TransportError> error) {
    {
        const MutexLock lock(_mutex);
        for (const auto& task : std::exchange(_tasks, {})) (void)task->moveTo(BackgroundTaskState::ended);
    }
    _delegateQueue->async([delegate = _delegate, error = std::move(error)] {
        if (const auto listener = delegate.lock()) listener->didBecomeInvalid(error);
    });
}

std::shared_ptr<FakeBackgroundTask> FakeBackgroundSession::_longestHeld() const {
    const MutexLock lock(_mutex);
    const auto found = std::ranges::find(_tasks, BackgroundTaskState::running, &FakeBackgroundTask::state);
    if (found == _tasks.end()) misuse("an answer, but no task is held");
    return *found;
}

BackgroundTasks FakeBackgroundSession::held() const {
    const MutexLock lock(_mutex);
    BackgroundTasks held;
    for (const auto& task : _tasks)
        if (task->state() == BackgroundTaskState::running) held.push_back(task);
    return held;
}

std::vector<FakeBackgroundSession::Sent> FakeBackgroundSession::sent() const {
    const MutexLock lock(_mutex);
    return _sent;
}

void FakeBackgroundSession::forgetSent() {
    const MutexLock lock(_mutex);
    _sent.clear();
}

std::shared_ptr<BackgroundSession> FakeBackgroundSessionFactory::makeSession(
    BackgroundSessionConfiguration configuration, std::weak_ptr<BackgroundSessionDelegate> delegate) {
    auto session =
        std::make_shared<FakeBackgroundSession>(_dispatcher, _files, std::move(configuration), std::move(delegate));
    const MutexLock lock(_mutex);
    _sessions[session->configuration().identifier] = session;
    return session;
}

bool FakeBackgroundSessionFactory::hasStoredTasks(std::string_view identifier) {
    const MutexLock lock(_mutex);
    return std::ranges::find(_stored, identifier) != _stored.end();
}

void FakeBackgroundSessionFactory::startUpIsThrough() {
    const MutexLock lock(_mutex);
    _startUpIsThrough = true;
}

void FakeBackgroundSessionFactory::pretendStoredTasks(std::string identifier) {
    const MutexLock lock(_mutex);
    _stored.push_back(std::move(identifier));
}

bool FakeBackgroundSessionFactory::startUpWasSaidToBeThrough() const {
    const MutexLock lock(_mutex);
    return _startUpIsThrough;
}

std::shared_ptr<FakeBackgroundSession> FakeBackgroundSessionFactory::session(std::string_view identifier) const {
    const MutexLock lock(_mutex);
    const auto found = _sessions.find(identifier);
    return found == _sessions.end() ? nullptr : found->second.lock();
}

}  // namespace orvex::platform
