#include "platform/fakes/fake_url_session.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "platform/url.h"

namespace orvex::platform {
namespace {

[[noreturn]] void misuse(const char* what) {
    fmt::print(stderr, "FakeURLSession: {}\n", what);
    std::abort();
}

std::optional<TransportError> refusal(const FakeURLSession::Sent& sent) {
    const auto url = parseAcceptableURL(sent.request.url);
    if (!url) return TransportError{TransportError::other, url.error().text, true};
    if (auto reason = unsendablePart(sent.request)) return TransportError{TransportError::other, *reason, true};
    if (sent.proxyURL && !parseAcceptableURL(*sent.proxyURL))
        return TransportError{TransportError::other, "the proxy is refused", true};
    return std::nullopt;
}

FakeAnswer failed(TransportError::Code code, std::string reason) {
    return {.error = TransportError{code, std::move(reason)}};
}

std::string contentOf(const FileTransfer& files) {
    std::string bytes(files.bodyBytes, '\0');
    if (files.body.valid() &&
        ::pread(files.body.get(), bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        misuse("the file of a body is shorter than it is said to be");
    return bytes;
}

/// As what a full disk leads to when it cannot be written.
std::optional<TransportError> writeAnswer(const FileTransfer& files, std::string_view bytes) {
    if (!files.answer.valid()) return std::nullopt;
    if (::ftruncate(files.answer.get(), 0) == 0 &&
        ::write(files.answer.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()))
        return std::nullopt;
    return TransportError{TransportError::other, "cannot write the answer"};
}

}  // namespace

/// made → resumed → completed, as in the interface. Keeps the delivery queue, so that it can end after its session.
class FakeURLTask final : public URLSessionTask, public std::enable_shared_from_this<FakeURLTask> {
public:
    FakeURLTask(const std::shared_ptr<FakeURLSession>& session, URLRequest request, DataTaskCompletion completion)
        : _session(session),
          _delivery(session->_delivery),
          _maxBodyBytes(session->_configuration.maxBodyBytes),
          _request(std::move(request)),
          _timer(*_delivery),
          _completion(std::move(completion)) {}

    void resume() override {
        std::optional<FakeURLSession::Sent> sent;
        {
            const MutexLock lock(_mutex);
            if (_state != State::made) return;
            _state = State::resumed;
            sent = FakeURLSession::Sent{_request, _isPreconnect, _proxyURL, _files};
        }
        const auto session = _session.lock();
        if (!session) misuse("a task was resumed after its session");
        if (sent->files) sent->request.body = contentOf(*sent->files);
        const bool asksCache = !sent->isPreconnect && !sent->files;
        if (asksCache && _answerFromCache(*session, sent->request.headers)) return;
        if (const auto error = refusal(*sent)) return complete({.error = error});
        _timer.armAfter(_request.timeout.value_or(std::chrono::seconds(60)), [weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->complete(failed(TransportError::timedOut, "timed out"));
        });
        session->_send(shared_from_this(), *sent);
    }

    void cancel() override { complete(failed(TransportError::cancelled, "cancelled")); }

    [[nodiscard]] const URLRequest& originalRequest() const override { return _request; }

    [[nodiscard]] std::map<std::string, double> timingData() const override {
        const MutexLock lock(_mutex);
        return _timing;
    }

    void setPreconnect() override {
        const MutexLock lock(_mutex);
        if (_state == State::resumed) misuse("setPreconnect after resume");
        _isPreconnect = true;
    }

    void setProxy(std::string proxyURL) override {
        const MutexLock lock(_mutex);
        if (_state == State::resumed) misuse("setProxy after resume");
        _proxyURL = std::move(proxyURL);
    }

    void setFiles(FileTransfer files) override {
        const MutexLock lock(_mutex);
        if (_state == State::resumed) misuse("setFiles after resume");
        _files = std::make_shared<const FileTransfer>(std::move(files));
    }

    /// The first call counts.
    void complete(FakeAnswer answer) {
        auto ending = _end(answer.timing);
        if (!ending) return;
        _timer.cancel();
        const auto session = _session.lock();
        if (session) session->_release(*this);
        if (answer.body.size() > _maxBodyBytes)
            answer = {.error = TransportError{TransportError::connectionLost, "the body is too long", true}};
        if (ending->files && !answer.error) answer.error = writeAnswer(*ending->files, answer.body);
        if (ending->drops) answer.body.clear();
        if (answer.error) return _post(std::move(ending->completion), std::nullopt, std::move(answer.error));
        HTTPAnswer whole = _asReceived(std::move(answer));
        if (session && whole.response.isHTTP && !ending->drops)
            whole = session->_cache.accept(ending->exchange(_request, session->_now()), std::move(whole));
        _post(std::move(ending->completion), std::move(whole), std::nullopt);
    }

private:
    enum class State { made, resumed, completed };

    struct Ending {
        DataTaskCompletion completion;
        bool drops = false;  ///< the body does not go to the completion
        std::shared_ptr<const FileTransfer> files;
        std::shared_ptr<const CachedAnswer> validates;
        MonotonicTime resumed;

        [[nodiscard]] URLCache::Exchange exchange(const URLRequest& request, CacheTime now) const {
            return {.request = request, .validated = validates, .requested = resumed, .arrived = now};
        }
    };

    /// None: it has ended.
    std::optional<Ending> _end(std::map<std::string, double> timing) {
        const MutexLock lock(_mutex);
        if (_state == State::completed) return std::nullopt;
        _state = State::completed;
        _timing = std::move(timing);
        return Ending{std::move(_completion), _isPreconnect || _files, _files, _validates, _resumed};
    }

    /// Or adds the conditions that validate what is stored to `headers`.
    bool _answerFromCache(FakeURLSession& session, HTTPHeaders& headers) {
        const CacheTime now = session._now();
        const auto stored = session._cache.find(_request, now);
        if (stored && stored->isFresh(now)) {
            if (auto ending = _end({{"from_cache", 1}})) _post(std::move(ending->completion), stored->at(now), {});
            return true;
        }
        if (stored)
            for (auto& condition : stored->conditions()) headers.push_back(std::move(condition));
        const MutexLock lock(_mutex);
        _validates = stored;
        _resumed = now.monotonic;
        return false;
    }

    HTTPAnswer _asReceived(FakeAnswer answer) const {
        HTTPAnswer received{.response = {answer.url.empty() ? _request.url : answer.url, answer.isHTTP, 0, {}}};
        if (answer.isHTTP) received.response.statusCode = answer.statusCode;
        if (answer.isHTTP) received.response.headers = std::move(answer.headers);
        if (!answer.body.empty()) received.body = std::make_shared<std::string>(std::move(answer.body));
        return received;
    }

    void _post(DataTaskCompletion completion, std::optional<HTTPAnswer> answer, std::optional<TransportError> error) {
        if (!completion) return;
        _delivery->async([queue = _delivery.get(), self = shared_from_this(), completion = std::move(completion),
                          answer = std::move(answer), error = std::move(error)]() mutable {
            queue->assertCurrent();
            if (answer)
                completion(std::move(answer->body), std::move(answer->response), std::nullopt);
            else
                completion(nullptr, std::nullopt, std::move(error));
        });
    }

    // Constant after construction.
    const std::weak_ptr<FakeURLSession> _session;
    const std::shared_ptr<SerialQueue> _delivery;
    const std::size_t _maxBodyBytes;
    const URLRequest _request;

    // Synchronised by themselves.
    Timer _timer;

    // Guarded by the mutex.
    mutable Mutex _mutex;
    State _state ORX_GUARDED_BY(_mutex) = State::made;
    bool _isPreconnect ORX_GUARDED_BY(_mutex) = false;
    std::optional<std::string> _proxyURL ORX_GUARDED_BY(_mutex);
    std::shared_ptr<const FileTransfer> _files ORX_GUARDED_BY(_mutex);
    std::shared_ptr<const CachedAnswer> _validates ORX_GUARDED_BY(_mutex);
    MonotonicTime _resumed ORX_GUARDED_BY(_mutex);
    std::map<std::string, double> _timing ORX_GUARDED_BY(_mutex);
    DataTaskCompletion _completion ORX_GUARDED_BY(_mutex);
};

FakeURLSession::FakeURLSession(Dispatcher& dispatcher, URLSessionConfiguration configuration)
    : _dispatcher(dispatcher),
      _configuration(std::move(configuration)),
      _delivery(std::make_shared<SerialQueue>(dispatcher, _configuration.label + ".delivery")),
      _cache(_configuration.cacheMemoryCapacity) {}

FakeURLSession::~FakeURLSession() {
    std::vector<std::shared_ptr<FakeURLTask>> held;
    {
        const MutexLock lock(_mutex);
        held.swap(_held);
    }
    for (const auto& task : held) task->complete(failed(TransportError::cancelled, "the session ended"));
    _delivery->close();
}

std::shared_ptr<URLSessionTask> FakeURLSession::dataTask(URLRequest request, DataTaskCompletion completion) {
    return std::make_shared<FakeURLTask>(shared_from_this(), std::move(request), std::move(completion));
}

bool FakeURLSession::purgeMemoryCache() {
    {
        const MutexLock lock(_mutex);
        ++_purges;
    }
    return _cache.purge(_dispatcher.now());
}

void FakeURLSession::setScript(Script script) {
    const MutexLock lock(_mutex);
    _script = std::move(script);
}

void FakeURLSession::answer(FakeAnswer answer) {
    std::shared_ptr<FakeURLTask> task;
    {
        const MutexLock lock(_mutex);
        if (_held.empty()) misuse("an answer, but no request is held");
        task = _held.front();
    }
    task->complete(std::move(answer));
}

std::size_t FakeURLSession::held() const {
    const MutexLock lock(_mutex);
    return _held.size();
}

std::vector<FakeURLSession::Sent> FakeURLSession::sent() const {
    const MutexLock lock(_mutex);
    return _sent;
}

std::size_t FakeURLSession::purges() const {
    const MutexLock lock(_mutex);
    return _purges;
}

void FakeURLSession::_send(const std::shared_ptr<FakeURLTask>& task, const Sent& sent) {
    Script script;
    {
        const MutexLock lock(_mutex);
        _sent.push_back(sent);
        _held.push_back(task);
        script = _script;
    }
    if (!script) return;
    if (auto answer = script(sent.request)) task->complete(*std::move(answer));
}

void FakeURLSession::_release(const FakeURLTask& task) {
    const MutexLock lock(_mutex);
    std::erase_if(_held, [&task](const auto& held) { return held.get() == &task; });
}

std::shared_ptr<URLSession> FakeURLSessionFactory::makeSession(URLSessionConfiguration configuration) {
    auto session = std::make_shared<FakeURLSession>(_dispatcher, std::move(configuration));
    const MutexLock lock(_mutex);
    session->setScript(_script);
    _sessions[session->configuration().label] = session;
    return session;
}

void FakeURLSessionFactory::setScript(FakeURLSession::Script script) {
    const MutexLock lock(_mutex);
    _script = std::move(script);
}

std::shared_ptr<FakeURLSession> FakeURLSessionFactory::session(std::string_view label) const {
    const MutexLock lock(_mutex);
    const auto found = _sessions.find(label);
    return found == _sessions.end() ? nullptr : found->second.lock();
}

}  // namespace orvex::platform
