#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/file_manager.h"

namespace orvex::platform {

/// Header fields in the order given. `value` compares names without regard to ASCII case, as HTTP does.
using HTTPHeaders = std::vector<std::pair<std::string, std::string>>;
std::optional<std::string> headerValue(const HTTPHeaders& headers, std::string_view name);
/// All fields of that name as one list, in order (RFC 9110, section 5.3).
std::optional<std::string> joinedHeaderValues(const HTTPHeaders& headers, std::string_view name);
/// Names of header fields and of their directives.
[[nodiscard]] bool isSameName(std::string_view a, std::string_view b);
/// Each of the three forms of a date (RFC 9110, section 5.6.7).
[[nodiscard]] std::optional<std::chrono::sys_seconds> parseHTTPDate(const std::string& text);
/// How long a server asks to be left alone: Retry-After in either form (RFC 9110, section 10.2.3), between nothing and
/// 24 hours. None: it does not ask, or not so that it can be read.
[[nodiscard]] std::optional<std::chrono::seconds> retryAfter(const HTTPHeaders& headers, WallTime now);

enum class CachePolicy {
    useProtocol,               ///< answer from the session's cache where RFC 9111 allows
    reloadIgnoringLocalCache,  ///< always ask the server; its answer may be stored
};

struct URLRequest {
    std::string url;  ///< absolute; checked by `parseAcceptableURL` when a task is resumed
    std::string method = "GET";
    HTTPHeaders headers;
    std::string body;
    std::optional<std::chrono::nanoseconds> timeout;  ///< for the whole of it; none: 60 s
    CachePolicy cachePolicy = CachePolicy::useProtocol;
    /// For a background task: how long past its earliest begin it may be put off for a better moment. None: a day.
    std::optional<std::chrono::seconds> timeWindow;
};

/// Why `request` must not reach the wire as it is: its method or the name of a header is no token (RFC 9110, section
/// 5.6.2), or the value of one has a control character. Does not look at the URL. The text quotes no value.
[[nodiscard]] std::optional<std::string> unsendablePart(const URLRequest& request);

struct URLResponse {
    std::string url;     ///< of the last redirect
    bool isHTTP = true;  ///< false: of another protocol, and then without status and headers
    std::int64_t statusCode = 0;
    HTTPHeaders headers;
};

/// Failures of the transport itself. `reason` is the transport's own text.
struct TransportError {
    enum Code : std::int32_t {
        other = -1,
        cancelled = -999,
        timedOut = -1001,
        cannotFindHost = -1003,
        cannotConnect = -1004,
        connectionLost = -1005,  ///< in the middle of an answer; also an answer over its size limit
        secureConnectionFailed = -1200,
    };
    Code code = other;
    std::string reason;
    bool isPermanent = false;  ///< another attempt cannot help: what was asked or answered breaks a rule of ours
};

/// Bodies that are files, for what must not lie in memory.
struct FileTransfer {
    FileDescriptor body;                      ///< sent from its start in place of the request's; none: that one
    std::uint64_t bodyBytes = 0;              ///< so many
    FileDescriptor answer;                    ///< where the answer is put, opened to append; none: it is dropped
    std::chrono::seconds longestSilence{60};  ///< on the wire, before the task ends with `timedOut`
    std::function<void(std::uint64_t bytesSent, std::uint64_t bytesReceived)> progress;  ///< often, on any thread
};

/// The body is shared, never copied, by all who keep it. Null: there was none (an empty body is none).
using Body = std::shared_ptr<const std::string>;

/// Called exactly once, on the session's delivery thread. A status of any kind is a response, not an error; with an
/// error there is no body, but there may be a response: the answer had begun, or was a redirect that is not followed.
using DataTaskCompletion =
    std::move_only_function<void(Body data, std::optional<URLResponse> response, std::optional<TransportError> error)>;

/// One request on its way: made → resumed → completed, or made → cancelled → completed. A task that is neither resumed
/// nor cancelled never completes; its completion is destroyed with it. So it is with one whose session is gone.
///
/// Threading: callable from any thread. It lives until its completion has returned, which must not hold the task.
class URLSessionTask {
public:
    virtual ~URLSessionTask() = default;
    virtual void resume() = 0;  ///< once; further calls do nothing
    virtual void cancel() = 0;  ///< completes with `cancelled`, unless it has completed
    [[nodiscard]] virtual const URLRequest& originalRequest() const = 0;

    /// What the transport measured, once completed: seconds by name ("name_lookup", "connect", "tls", "first_byte",
    /// "total"), and "connections" opened for it. For an answer that never left the session's cache "from_cache" (1)
    /// alone.
    [[nodiscard]] virtual std::map<std::string, double> timingData() const = 0;

    /// Set before `resume`: the body is drained and dropped, and the cache neither read nor written; the connection
    /// stays for the next request.
    virtual void setPreconnect() = 0;
    /// Set before `resume`: through the CONNECT proxy at this URL, which follows the rule for every URL.
    virtual void setProxy(std::string proxyURL) = 0;
    /// Set before `resume`. A task with a body of its own follows the redirects 307 and 308 only, any other is its
    /// answer. The completion has no body, and the cache is neither read nor written.
    virtual void setFiles(FileTransfer files) = 0;
};

struct URLSessionConfiguration {
    std::string label;                     ///< of its threads and in logs
    bool allowsFastOpen = false;           ///< TCP Fast Open and TLS session tickets
    std::size_t cacheMemoryCapacity = 0;   ///< bytes of a cache in memory (url_cache.h); 0: no cache
    std::size_t maxBodyBytes = 8u << 20;   ///< decoded; beyond it the task fails with `connectionLost`
    std::string certificateAuthorityFile;  ///< PEM; empty: the system's
};

/// Requests over HTTP. Made once for each purpose; keeps connections.
///
/// Redirects are followed here, at most five: each target is checked as the URL was, https never goes to http, another
/// host gets none of the request's headers, and a loopback host is reached from a loopback host only. A refused one
/// ends the task with `other`. So does a URL, method or header that must not be sent.
///
/// Threading: callable from any thread. Destruction cancels what is under way and waits for its completions; from
/// within one of them it waits for none.
class URLSession {
public:
    virtual ~URLSession() = default;
    [[nodiscard]] virtual std::shared_ptr<URLSessionTask> dataTask(URLRequest request,
                                                                   DataTaskCompletion completion) = 0;

    /// Empties the memory cache; what is under way will not be stored there. False when the session has none.
    virtual bool purgeMemoryCache() = 0;
};

/// Makes sessions; the assembly asks once for each of its four.
class URLSessionFactory {
public:
    virtual ~URLSessionFactory() = default;
    virtual std::shared_ptr<URLSession> makeSession(URLSessionConfiguration configuration) = 0;
};

}  // namespace orvex::platform
