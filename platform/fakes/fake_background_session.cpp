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
        : current(std::move(request)),
          _session(std::move(session)),
          _identifier(identifier),
          _direction(direction),
          _request(current),
          _file(std::move(file)),
          _timer(queue) {}

    [[nodiscard]] std::uint64_t identifier() const override { return _identifier; }
    [[nodiscard]] TransferDirection direction() const override { return _direction; }
    [[nodiscard]] const URLRequest& originalRequest() const override { return _request; }
    [[nodiscard]] State state() const override { return _state; }
    [[nodiscard]] URLRequest currentRequest() const override { return current; }
    [[nodiscard]] std::optional<URLResponse> response() const override { return answered; }
    [[nodiscard]] std::uint64_t numberOfFeedbacks() const override { return _numberOfFeedbacks; }
    void setNumberOfFeedbacks(std::uint64_t count) override { _numberOfFeedbacks = count; }
    void setEarliestBeginDate(WallTime date) override {
        if (_state != State::made) misuse("setEarliestBeginDate after resume");
        earliestBegin = date;
    }

    [[nodiscard]] Result<void> resume() override {
        const auto session = _session.lock();
        if (!session) misuse("a task was resumed after its session");
        if (_state != State::made) return failure(EINVAL, "resumed before");
        auto stored = session->_store(shared_from_this(), _file);
        if (!stored) return std::unexpected(stored.error());
        body = *std::move(stored);
        _state = State::waiting;
        const auto now = session->_delegateQueue->dispatcher().wallNow();
        const auto delay = std::max<std::chrono::nanoseconds>(earliestBegin.value_or(now) - now, {});
        _timer.armAfter(delay, [weak = weak_from_this(), owner = _session] {
            const auto task = weak.lock();
            const auto made = owner.lock();
            if (task && made) made->_begin(task);
        });
        return {};
    }

    void cancel() override {
        const auto session = _session.lock();
        if (!session || _state == State::made) return;
        session->_end(shared_from_this(), {.error = TransportError{TransportError::cancelled, "cancelled"}});
    }

    /// False: it has ended. The first end counts.
    bool moveTo(State to) {
        if (_state >= State::ended && to <= State::ended) return false;
        _state = to;
        return true;
    }

    URLRequest current;
    std::optional<URLResponse> answered;
    std::optional<WallTime> earliestBegin;
    std::string body;
    std::uint64_t bytesSent = 0;

private:
    // Constant after construction.
    const std::weak_ptr<FakeBackgroundSession> _session;
    const std::uint64_t _identifier;
    const TransferDirection _direction;
    const URLRequest _request;
    const std::string _file;

    Timer _timer;
    State _state = State::made;
    std::uint64_t _numberOfFeedbacks = 0;
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
        if (const auto self = weak.lock()) completion({self->_tasks.begin(), self->_tasks.end()});
    });
}

std::vector<PendingTransfer> FakeBackgroundSession::pendingTransfers() const {
    std::vector<PendingTransfer> pending;
    for (const auto& task : _tasks)
        pending.push_back({.identifier = fmt::format("{}/{}", _configuration.identifier, task->identifier()),
                           .direction = task->direction(),
                           .url = task->current.url,
                           .bytes = task->body.size(),
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
    if (const auto refusal = std::exchange(_refusal, std::nullopt)) return std::unexpected(*refusal);
    std::string body;
    if (task->direction() == TransferDirection::upload) {
        auto state = _files.stateDirectory();
        if (!state) return std::unexpected(state.error());
        auto read = (*state)->read(file, largestBody);
        if (!read) return std::unexpected(read.error());
        if (auto removed = (*state)->remove(file); !removed) return std::unexpected(removed.error());
        body = *std::move(read);
    }
    _tasks.push_back(task);
    return body;
}

void FakeBackgroundSession::_begin(const std::shared_ptr<FakeBackgroundTask>& task) {
    const auto delegate = _delegate.lock();
    if (!task->earliestBegin || !delegate) return _send(task, task->originalRequest());
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
    task->current = request;
    const Sent& sent = _sent.emplace_back(task, std::move(request), task->body);
    if (!_script) return;
    if (auto answer = _script(sent)) _end(task, *std::move(answer));
}

void FakeBackgroundSession::_end(const std::shared_ptr<FakeBackgroundTask>& task, FakeAnswer answer) {
    if (!answer.error && isTemporaryStatus(answer.statusCode)) misuse("a temporary answer is never heard of");
    if (!task->moveTo(BackgroundTaskState::ended)) return;
    std::erase(_tasks, task);
    if (!answer.error) {
        if (!answer.url.empty()) task->current.url = answer.url;
        task->answered = {task->current.url, true, answer.statusCode, std::move(answer.headers)};
    }
    _delegateQueue->async([delegate = _delegate, task, body = std::move(answer.body), error = std::move(answer.error)] {
        const auto listener = delegate.lock();
        if (!listener) return;
        FakeDownloadedFile file(body);
        if (!error && task->direction() == TransferDirection::download) listener->didFinishDownloading(task, file);
        listener->didComplete(task, error);
        (void)task->moveTo(BackgroundTaskState::told);
    });
}

void FakeBackgroundSession::answer(FakeAnswer answer) { _end(_longestHeld(), std::move(answer)); }

void FakeBackgroundSession::sendBody(std::uint64_t bytes) {
    const auto task = _longestHeld();
    const auto before = std::exchange(task->bytesSent, std::min(task->bytesSent + bytes, task->body.size()));
    const BackgroundSessionDelegate::BodyProgress progress{.bytesSent = task->bytesSent - before,
                                                           .totalBytesSent = task->bytesSent,
                                                           .totalBytesExpectedToSend = task->body.size()};
    _delegateQueue->async([delegate = _delegate, task, progress] {
        if (const auto listener = delegate.lock()) listener->didSendBodyData(task, progress);
    });
}

void FakeBackgroundSession::invalidate(std::optional<TransportError> error) {
    for (const auto& task : std::exchange(_tasks, {})) (void)task->moveTo(BackgroundTaskState::ended);
    _delegateQueue->async([delegate = _delegate, error = std::move(error)] {
        if (const auto listener = delegate.lock()) listener->didBecomeInvalid(error);
    });
}

std::shared_ptr<FakeBackgroundTask> FakeBackgroundSession::_longestHeld() const {
    const auto found = std::ranges::find(_tasks, BackgroundTaskState::running, &FakeBackgroundTask::state);
    if (found == _tasks.end()) misuse("an answer, but no task is held");
    return *found;
}

BackgroundTasks FakeBackgroundSession::held() const {
    BackgroundTasks held;
    for (const auto& task : _tasks)
        if (task->state() == BackgroundTaskState::running) held.push_back(task);
    return held;
}

std::shared_ptr<BackgroundSession> FakeBackgroundSessionFactory::makeSession(
    BackgroundSessionConfiguration configuration, std::weak_ptr<BackgroundSessionDelegate> delegate) {
    auto session =
        std::make_shared<FakeBackgroundSession>(_dispatcher, _files, std::move(configuration), std::move(delegate));
    _sessions[session->configuration().identifier] = session;
    return session;
}

std::shared_ptr<FakeBackgroundSession> FakeBackgroundSessionFactory::session(std::string_view identifier) const {
    const auto found = _sessions.find(identifier);
    return found == _sessions.end() ? nullptr : found->second.lock();
}

}  // namespace orvex::platform
