#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "platform/clock.h"
#include "platform/dispatch.h"
#include "platform/http_session.h"
#include "platform/thread_annotations.h"

namespace orvex {

/// A request that may be sent again when its transport fails.
struct ORXRetryableNetworkRequest {
    platform::URLRequest httpRequest;
    std::optional<platform::MonotonicTime> expire;  ///< after it nothing is tried again; none: nothing ever is
    bool delayOnFail = false;                       ///< wait 1.5 s before the next attempt, else none
    /// Called with the task of each attempt but the first before it is resumed: the place to set its proxy.
    std::function<void(platform::URLSessionTask& task)> prepareNext = {};
};

struct RetryCount {
    std::uint32_t attempt = 1;
    std::uint32_t retriesLeft = 0;
};

/// A retryable request on its way. Each attempt is a new task of the session.
///
///     made ──resume──▶ running ──transport failure, neither expired nor out of retries──▶ waiting ──▶ running …
///     running ──an answer, or the last failure──▶ finished
///     running, waiting ──cancel──▶ finished, with `cancelled`
///
/// Threading: callable from any thread. The completion comes exactly once, with the last attempt's result: on the
/// session's delivery thread, or on the high-priority pool when it is cancelled while waiting. One that is never
/// resumed never completes. It lives by itself from `resume` to the end; session and dispatcher outlive it.
class RetryableTask : public std::enable_shared_from_this<RetryableTask> {
public:
    RetryableTask(const RetryableTask&) = delete;
    RetryableTask& operator=(const RetryableTask&) = delete;

    void resume();  ///< once; further calls do nothing
    void cancel();  ///< reaches the attempt that is under way

    /// The first attempt, whatever came after: the one that records speak of.
    [[nodiscard]] const std::shared_ptr<platform::URLSessionTask>& task() const { return _firstTask; }

private:
    friend std::shared_ptr<RetryableTask> dataTaskWithRetryableRequest(platform::URLSession&, platform::Dispatcher&,
                                                                       ORXRetryableNetworkRequest, RetryCount,
                                                                       platform::DataTaskCompletion);
    enum class State { made, running, waiting, finished };

    RetryableTask(platform::URLSession& session, platform::Dispatcher& dispatcher, ORXRetryableNetworkRequest request,
                  RetryCount count, platform::DataTaskCompletion completion);

    std::shared_ptr<platform::URLSessionTask> _makeTask();
    void _run(platform::URLSessionTask& task);
    bool _isCancelled();
    void _attemptEnded(platform::Body data, std::optional<platform::URLResponse> response,
                       std::optional<platform::TransportError> error);
    bool _beginWaiting();  ///< whether another attempt comes
    void _tryAgain();
    void _finish(platform::Body data, std::optional<platform::URLResponse> response,
                 std::optional<platform::TransportError> error);

    // Constant after construction.
    platform::URLSession& _session;
    platform::Dispatcher& _dispatcher;
    const ORXRetryableNetworkRequest _request;
    std::shared_ptr<platform::URLSessionTask> _firstTask;

    // A leaf lock.
    platform::Mutex _mutex;
    State _state ORX_GUARDED_BY(_mutex) = State::made;
    bool _cancelled ORX_GUARDED_BY(_mutex) = false;
    RetryCount _count ORX_GUARDED_BY(_mutex);
    std::shared_ptr<platform::URLSessionTask> _currentTask ORX_GUARDED_BY(_mutex);
    std::shared_ptr<RetryableTask> _self ORX_GUARDED_BY(_mutex);  ///< itself, from resume to the end
    platform::DataTaskCompletion _completion ORX_GUARDED_BY(_mutex);
};

/// Makes the first attempt; the caller resumes what it gets. `completion` may be empty.
[[nodiscard]] std::shared_ptr<RetryableTask> dataTaskWithRetryableRequest(platform::URLSession& session,
                                                                          platform::Dispatcher& dispatcher,
                                                                          ORXRetryableNetworkRequest request,
                                                                          RetryCount count,
                                                                          platform::DataTaskCompletion completion);

}  // namespace orvex
