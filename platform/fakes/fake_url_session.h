#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dispatch.h"
#include "platform/http_session.h"
#include "platform/thread_annotations.h"
#include "platform/url_cache.h"

namespace orvex::platform {

class FakeURLTask;

/// How a test ends a task. Its defaults are an empty answer with status 200.
struct FakeAnswer {
    std::int64_t statusCode = 200;
    HTTPHeaders headers;
    std::string body;
    bool isHTTP = true;                   ///< false: the response has neither status nor headers
    std::optional<TransportError> error;  ///< then there is neither response nor body
    std::map<std::string, double> timing;
    std::string url;  ///< of the last redirect; empty: there was none
};

/// A session whose server is the test. A request that is resumed gets the script's answer, or is held until the test
/// answers it, it is cancelled, or its time (by the dispatcher's clock) runs out. What must not be sent ends as it does
/// with the real session, the body has the same limit and the cache is the same; redirects are not played.
///
/// Completions run on a serial queue of the dispatcher, never inside the call that led to them.
/// It aborts, with a reason, when a task is given settings after `resume`, is resumed after its session is gone, and
/// when an answer meets no held request.
///
/// Threading: callable from any thread; the script is called by the one that resumes.
class FakeURLSession final : public URLSession, public std::enable_shared_from_this<FakeURLSession> {
public:
    struct Sent {
        URLRequest request;
        bool isPreconnect = false;
        std::optional<std::string> proxyURL;
        std::shared_ptr<const FileTransfer> files;  ///< the body of the request is then what the file held
    };
    /// None: the request is held.
    using Script = std::function<std::optional<FakeAnswer>(const URLRequest& request)>;

    FakeURLSession(Dispatcher& dispatcher, URLSessionConfiguration configuration);
    ~FakeURLSession() override;

    std::shared_ptr<URLSessionTask> dataTask(URLRequest request, DataTaskCompletion completion) override;
    bool purgeMemoryCache() override;  ///< false when the configuration has no cache; counted either way

    void setScript(Script script);                 ///< none: every request is held
    void answer(FakeAnswer answer);                ///< to the request that has been held longest
    [[nodiscard]] std::size_t held() const;        ///< requests that wait for an answer
    [[nodiscard]] std::vector<Sent> sent() const;  ///< every request as it would have reached the wire, in order
    [[nodiscard]] std::size_t purges() const;
    [[nodiscard]] const URLSessionConfiguration& configuration() const { return _configuration; }

private:
    friend class FakeURLTask;
    void _send(const std::shared_ptr<FakeURLTask>& task, const Sent& sent);
    void _release(const FakeURLTask& task);
    [[nodiscard]] CacheTime _now() const { return {_dispatcher.now(), _dispatcher.wallNow()}; }

    // Constant after construction.
    Dispatcher& _dispatcher;
    const URLSessionConfiguration _configuration;

    // Synchronised by themselves.
    const std::shared_ptr<SerialQueue> _delivery;
    URLCache _cache;

    // Guarded by the mutex.
    mutable Mutex _mutex;
    Script _script ORX_GUARDED_BY(_mutex);
    std::vector<Sent> _sent ORX_GUARDED_BY(_mutex);
    std::vector<std::shared_ptr<FakeURLTask>> _held ORX_GUARDED_BY(_mutex);
    std::size_t _purges ORX_GUARDED_BY(_mutex) = 0;
};

/// Makes fake sessions and remembers them by label.
class FakeURLSessionFactory final : public URLSessionFactory {
public:
    explicit FakeURLSessionFactory(Dispatcher& dispatcher) : _dispatcher(dispatcher) {}

    std::shared_ptr<URLSession> makeSession(URLSessionConfiguration configuration) override;

    /// Of sessions that are made from now on.
    void setScript(FakeURLSession::Script script);

    /// Null when none was made, or it is gone.
    [[nodiscard]] std::shared_ptr<FakeURLSession> session(std::string_view label) const;

private:
    Dispatcher& _dispatcher;
    mutable Mutex _mutex;
    FakeURLSession::Script _script ORX_GUARDED_BY(_mutex);
    std::map<std::string, std::weak_ptr<FakeURLSession>, std::less<>> _sessions ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex::platform
