#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/http_session.h"
#include "platform/thread_annotations.h"
#include "platform/url_cache.h"

namespace orvex::platform {

class CurlMultiThread;
class DeliveryThread;

/// What the transport measured. Points in time are seconds since the task was resumed.
struct CurlTiming {
    double nameLookup = 0;
    double connect = 0;
    double tls = 0;  ///< 0 without TLS or on a kept connection
    double firstByte = 0;
    double total = 0;
    long connections = 0;    ///< opened, over all redirects
    bool fromCache = false;  ///< nothing was measured
};

/// How a task ended: the arguments of its completion, and what was measured.
struct CurlOutcome {
    Body data;
    std::optional<URLResponse> response;
    std::optional<TransportError> error;
    CurlTiming timing;
};

/// The present, for the session's cache.
CacheTime cacheNow();

/// A task of a session on libcurl. The caller's half of a request: what is asked for, and the one completion. Its
/// transfer, and all of libcurl, lives on the session's transfer thread (curl_transfer.h). What the session's cache
/// answers completes in `resume`, and never gets there.
///
///     made ──resume──▶ underWay ──the transfer's end, a cached answer, or cancel──▶ completed
///     made ──cancel──▶ completed
///
/// Threading: callable from any thread; a leaf lock.
class CurlTask final : public URLSessionTask, public std::enable_shared_from_this<CurlTask> {
public:
    struct Settings {
        bool preconnect = false;
        std::optional<std::string> proxyURL;
        std::shared_ptr<const FileTransfer> files;  ///< null: bodies are in memory
        std::chrono::steady_clock::time_point resumed;
        std::shared_ptr<const CachedAnswer> validates;  ///< whose conditions go along; null: none do

        [[nodiscard]] bool passesCache() const { return preconnect || files; }
    };

    CurlTask(std::weak_ptr<CurlMultiThread> session, URLRequest request, DataTaskCompletion completion);

    void resume() override;
    void cancel() override;
    [[nodiscard]] const URLRequest& originalRequest() const override { return _request; }
    [[nodiscard]] std::map<std::string, double> timingData() const override;
    void setPreconnect() override;
    void setProxy(std::string proxyURL) override;
    void setFiles(FileTransfer files) override;

    /// For the transfer thread; they do not change once it has the task.
    [[nodiscard]] Settings settings() const;
    [[nodiscard]] bool isCompleted() const;

    /// Posts the completion to `delivery`, the first time.
    void complete(CurlOutcome outcome, DeliveryThread& delivery);

private:
    enum class State {
        made,       ///< may still be given settings
        underWay,   ///< the transfer thread has it
        completed,  ///< the completion is posted
    };
    static const char* name(State state);

    [[nodiscard]] bool _markResumed();
    [[nodiscard]] bool _answerFromCache(CurlMultiThread& session);
    void _logState(State state) const;

    // Constant after construction.
    const std::weak_ptr<CurlMultiThread> _session;
    const URLRequest _request;

    // Guarded by the mutex.
    mutable Mutex _mutex;
    State _state ORX_GUARDED_BY(_mutex) = State::made;
    Settings _settings ORX_GUARDED_BY(_mutex);
    CurlTiming _timing ORX_GUARDED_BY(_mutex);
    DataTaskCompletion _completion ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex::platform
