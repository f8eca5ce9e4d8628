#include "network/orx_retryable_network_request.h"

#include <utility>

#include "daemon/orvex_logging.h"

namespace orvex {

using namespace std::chrono_literals;
using platform::MutexLock;

namespace {
constexpr auto delayBetweenAttempts = 1500ms;
}

// An attempt's completion holds this object weakly, or a task that is never resumed would hold itself; from `resume` to
// the end the object holds itself. A completion is never called, nor a task asked for anything, with the lock held.

RetryableTask::RetryableTask(platform::URLSession& session, platform::Dispatcher& dispatcher,
                             ORXRetryableNetworkRequest request, RetryCount count,
                             platform::DataTaskCompletion completion)
    : _session(session),
      _dispatcher(dispatcher),
      _request(std::move(request)),
      _count(count),
      _completion(std::move(completion)) {}

std::shared_ptr<RetryableTask> dataTaskWithRetryableRequest(platform::URLSession& session,
                                                            platform::Dispatcher& dispatcher,
                                                            ORXRetryableNetworkRequest request, RetryCount count,
                                                            platform::DataTaskCompletion completion) {
    const std::shared_ptr<RetryableTask> task(
        new RetryableTask(session, dispatcher, std::move(request), count, std::move(completion)));
    task->_firstTask = task->_makeTask();
    return task;
}

std::shared_ptr<platform::URLSessionTask> RetryableTask::_makeTask() {
    return _session.dataTask(_request.httpRequest,
                             [weak = weak_from_this()](platform::Body data, auto response, auto error) {
                                 const auto self = weak.lock();
                                 if (self) self->_attemptEnded(std::move(data), std::move(response), std::move(error));
                             });
}

void RetryableTask::resume() {
    {
        const MutexLock lock(_mutex);
        if (_state != State::made) return;
        _state = State::running;
        _self = shared_from_this();
        _currentTask = _firstTask;
    }
    _run(*_firstTask);
}

void RetryableTask::_run(platform::URLSessionTask& task) {
    task.resume();
    if (_isCancelled()) task.cancel();  // it came before there was anything to cancel
}

void RetryableTask::cancel() {
    std::shared_ptr<platform::URLSessionTask> running;
    bool waiting = false;
    {
        const MutexLock lock(_mutex);
        if (_state == State::finished || _cancelled) return;
        _cancelled = true;
        running = _state == State::running ? _currentTask : nullptr;
        waiting = _state == State::waiting;
    }
    if (running) running->cancel();
    if (!waiting) return;
    _dispatcher.submit(platform::Priority::high, [self = shared_from_this()] {
        self->_finish(nullptr, std::nullopt,
                      platform::TransportError{platform::TransportError::cancelled, "cancelled"});
    });
}

bool RetryableTask::_isCancelled() {
    const MutexLock lock(_mutex);
    return _cancelled;
}

void RetryableTask::_attemptEnded(platform::Body data, std::optional<platform::URLResponse> response,
                                  std::optional<platform::TransportError> error) {
    if (!error || !_beginWaiting()) return _finish(std::move(data), std::move(response), std::move(error));
    const auto delay = _request.delayOnFail ? delayBetweenAttempts : 0ms;
    platform::GlobalQueue(_dispatcher, platform::Priority::high).after(delay, [self = shared_from_this()] {
        self->_tryAgain();
    });
}

bool RetryableTask::_beginWaiting() {
    const MutexLock lock(_mutex);
    const bool expired = !_request.expire || _dispatcher.now() > *_request.expire;
    if (expired || _cancelled || _count.retriesLeft == 0 || _state != State::running) return false;
    _state = State::waiting;
    return true;
}

void RetryableTask::_tryAgain() {
    const auto task = _makeTask();
    if (_request.prepareNext) _request.prepareNext(*task);
    RetryCount count;
    {
        const MutexLock lock(_mutex);
        if (_state != State::waiting || _cancelled) return;
        _state = State::running;
        count = {.attempt = _count.attempt + 1, .retriesLeft = _count.retriesLeft - 1};
        _count = count;
        _currentTask = task;
    }
    OrvexLogForCategory(OrvexLoggingCategory::request)
        .debug("attempt {} begins, {} left after it", count.attempt, count.retriesLeft);
    _run(*task);
}

void RetryableTask::_finish(platform::Body data, std::optional<platform::URLResponse> response,
                            std::optional<platform::TransportError> error) {
    platform::DataTaskCompletion completion;
    std::shared_ptr<RetryableTask> self;
    {
        const MutexLock lock(_mutex);
        if (_state == State::finished) return;
        _state = State::finished;
        completion = std::exchange(_completion, nullptr);
        self = std::exchange(_self, nullptr);
        _currentTask = nullptr;
    }
    if (completion) completion(std::move(data), std::move(response), std::move(error));
}

}  // namespace orvex
