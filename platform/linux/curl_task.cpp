#include "platform/linux/curl_task.h"

#include "platform/linux/curl_multi_thread.h"
#include "platform/linux/delivery_thread.h"
#include "platform/linux/steady_time.h"
#include "platform/log.h"

namespace orvex::platform {

CacheTime cacheNow() { return {steadyNow(), WallTime(std::chrono::system_clock::now().time_since_epoch())}; }

CurlTask::CurlTask(std::weak_ptr<CurlMultiThread> session, URLRequest request, DataTaskCompletion completion)
    : _session(std::move(session)),
      _request(std::move(request)),
      _completion(std::move(completion)) {}

void CurlTask::resume() {
    if (!_markResumed()) return;
    _logState(State::underWay);
    const auto session = _session.lock();
    if (session && _answerFromCache(*session)) return;
    if (!session || !session->start(shared_from_this())) defaultLogger().error("a task was resumed after its session");
}

bool CurlTask::_markResumed() {
    const MutexLock lock(_mutex);
    if (_state != State::made) return false;
    _settings.resumed = std::chrono::steady_clock::now();
    _state = State::underWay;
    return true;
}

bool CurlTask::_answerFromCache(CurlMultiThread& session) {
    if (settings().passesCache()) return false;
    const CacheTime now = cacheNow();
    auto stored = session.cache().find(_request, now);
    if (!stored) return false;
    if (stored->isFresh(now)) {
        HTTPAnswer answer = stored->at(now);
        complete({.data = std::move(answer.body), .response = std::move(answer.response), .timing{.fromCache = true}},
                 session.delivery());
        return true;
    }
    const MutexLock lock(_mutex);
    _settings.validates = std::move(stored);
    return false;
}

void CurlTask::cancel() {
    const auto session = _session.lock();
    if (!session) return;
    complete({.error = TransportError{TransportError::cancelled, "cancelled"}}, session->delivery());
    session->abandon(shared_from_this());
}

std::map<std::string, double> CurlTask::timingData() const {
    const MutexLock lock(_mutex);
    if (_state != State::completed) return {};
    if (_timing.fromCache) return {{"from_cache", 1}};
    return {{"name_lookup", _timing.nameLookup},
            {"connect", _timing.connect},
            {"tls", _timing.tls},
            {"first_byte", _timing.firstByte},
            {"total", _timing.total},
            {"connections", static_cast<double>(_timing.connections)}};
}

void CurlTask::setPreconnect() {
    const MutexLock lock(_mutex);
    if (_state == State::made) _settings.preconnect = true;
}

void CurlTask::setProxy(std::string proxyURL) {
    const MutexLock lock(_mutex);
    if (_state == State::made) _settings.proxyURL = std::move(proxyURL);
}

void CurlTask::setFiles(FileTransfer files) {
    const MutexLock lock(_mutex);
    if (_state == State::made) _settings.files = std::make_shared<const FileTransfer>(std::move(files));
}

CurlTask::Settings CurlTask::settings() const {
    const MutexLock lock(_mutex);
    return _settings;
}

bool CurlTask::isCompleted() const {
    const MutexLock lock(_mutex);
    return _state == State::completed;
}

void CurlTask::complete(CurlOutcome outcome, DeliveryThread& delivery) {
    DataTaskCompletion completion;
    {
        const MutexLock lock(_mutex);
        if (_state == State::completed) return;
        _state = State::completed;
        _timing = outcome.timing;
        completion = std::move(_completion);
    }
    _logState(State::completed);
    if (!completion) return;
    delivery.post(
        [self = shared_from_this(), completion = std::move(completion), outcome = std::move(outcome)]() mutable {
            completion(std::move(outcome.data), std::move(outcome.response), std::move(outcome.error));
        });
}

const char* CurlTask::name(State state) {
    switch (state) {
        case State::made:
            return "made";
        case State::underWay:
            return "under way";
        case State::completed:
            return "completed";
    }
    return "?";
}

void CurlTask::_logState(State state) const {
    defaultLogger().debug("task {} is {}", static_cast<const void*>(this), name(state));
}

}  // namespace orvex::platform
