#include "platform/linux/stored_background_task.h"

#include <cerrno>
#include <utility>

#include "platform/linux/stored_background_session.h"
#include "platform/log.h"

namespace orvex::platform {

StoredBackgroundTask::StoredBackgroundTask(std::weak_ptr<StoredBackgroundSession> session, const StoredTransfer& stored,
                                           std::string file, BackgroundTaskState state)
    : _session(std::move(session)),
      _identifier(stored.number),
      _direction(stored.direction),
      _request(stored.request),
      _file(std::move(file)),
      _state(state),
      _current(stored.request),
      _earliestBegin(stored.earliestBegin),
      _numberOfFeedbacks(stored.numberOfFeedbacks) {
    if (stored.end && stored.end->response) setResponse(*stored.end->response);
}

BackgroundTaskState StoredBackgroundTask::state() const {
    const MutexLock lock(_mutex);
    return _state;
}

URLRequest StoredBackgroundTask::currentRequest() const {
    const MutexLock lock(_mutex);
    return _current;
}

std::optional<URLResponse> StoredBackgroundTask::response() const {
    const MutexLock lock(_mutex);
    return _response;
}

std::uint64_t StoredBackgroundTask::numberOfFeedbacks() const {
    const MutexLock lock(_mutex);
    return _numberOfFeedbacks;
}

void StoredBackgroundTask::setNumberOfFeedbacks(std::uint64_t count) {
    const MutexLock lock(_mutex);
    _numberOfFeedbacks = count;
}

std::optional<WallTime> StoredBackgroundTask::earliestBegin() const {
    const MutexLock lock(_mutex);
    return _earliestBegin;
}

void StoredBackgroundTask::setEarliestBeginDate(WallTime date) {
    const MutexLock lock(_mutex);
    if (_state == BackgroundTaskState::made) _earliestBegin = date;
}

Result<void> StoredBackgroundTask::resume() {
    const auto session = _session.lock();
    if (!session) return failure(EINVAL, "the task's session is gone");
    return session->accept(shared_from_this());
}

void StoredBackgroundTask::cancel() {
    if (const auto session = _session.lock()) session->cancel(_identifier);
}

void StoredBackgroundTask::moveTo(BackgroundTaskState state) {
    {
        const MutexLock lock(_mutex);
        if (std::exchange(_state, state) == state) return;
    }
    defaultLogger().debug("background task {} is {}", _identifier, name(state));
}

void StoredBackgroundTask::setCurrentRequest(URLRequest request) {
    const MutexLock lock(_mutex);
    _current = std::move(request);
}

void StoredBackgroundTask::setResponse(URLResponse response) {
    const MutexLock lock(_mutex);
    _current.url = response.url;
    _response = std::move(response);
}

}  // namespace orvex::platform
