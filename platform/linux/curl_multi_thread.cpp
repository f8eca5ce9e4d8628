#include "platform/linux/curl_multi_thread.h"

#include <pthread.h>

#include <limits>
#include <utility>

#include "platform/log.h"

namespace orvex::platform {
namespace {

constexpr long maxKeptConnections = 8;
constexpr long maxConnections = 256;
constexpr int noTimeout = std::numeric_limits<int>::max();  // 24 days, the longest that libcurl takes

}  // namespace

CurlMultiThread::CurlMultiThread(URLSessionConfiguration configuration)
    : _configuration(std::move(configuration)),
      _delivery(_configuration.label + ".d"),
      _cache(_configuration.cacheMemoryCapacity) {}

CurlMultiThread::~CurlMultiThread() { close(); }

bool CurlMultiThread::start(std::shared_ptr<CurlTask> task) {
    {
        const MutexLock lock(_mutex);
        if (_orders.closing) return false;
        if (_thread.joinable() || _launch()) _orders.started.push_back(std::exchange(task, nullptr));
    }
    if (task)
        task->complete({.error = TransportError{TransportError::other, "no transfer can be started"}}, _delivery);
    else
        curl_multi_wakeup(_multi.get());
    return true;
}

void CurlMultiThread::abandon(std::shared_ptr<CurlTask> task) {
    {
        const MutexLock lock(_mutex);
        if (_orders.closing || !_thread.joinable()) return;
        _orders.abandoned.push_back(std::move(task));
    }
    curl_multi_wakeup(_multi.get());
}

void CurlMultiThread::close() {
    std::thread thread;
    {
        const MutexLock lock(_mutex);
        _orders.closing = true;
        thread = std::move(_thread);
    }
    if (thread.joinable()) {
        curl_multi_wakeup(_multi.get());
        thread.join();
    }
    _delivery.close();
}

bool CurlMultiThread::_launch() {
    _multi.reset(curl_multi_init());
    // Without descriptors it is made all the same, but then nothing would ever wake it.
    if (!_multi || curl_multi_wakeup(_multi.get()) != CURLM_OK) {
        defaultLogger().error("no transfer can be started: the system has no descriptors to give");
        return false;
    }
    curl_multi_setopt(_multi.get(), CURLMOPT_MAXCONNECTS, maxKeptConnections);
    curl_multi_setopt(_multi.get(), CURLMOPT_MAX_TOTAL_CONNECTIONS, maxConnections);
    _thread = std::thread([this] { _run(); });
    pthread_setname_np(_thread.native_handle(), (_configuration.label.substr(0, 13) + ".t").c_str());
    return true;
}

CurlMultiThread::Orders CurlMultiThread::_takeOrders() {
    const MutexLock lock(_mutex);
    Orders orders{.closing = _orders.closing};
    orders.started.swap(_orders.started);
    orders.abandoned.swap(_orders.abandoned);
    return orders;
}

void CurlMultiThread::_run() {
    _handles = std::make_unique<CurlHandlePool>(_configuration);
    for (;;) {
        Orders orders = _takeOrders();
        for (auto& task : orders.started) _begin(std::move(task));
        for (const auto& task : orders.abandoned) _abandon(task.get());
        if (orders.closing) break;

        int running = 0;
        curl_multi_perform(_multi.get(), &running);
        _collectEnded();
        curl_multi_poll(_multi.get(), nullptr, 0, noTimeout, nullptr);
    }
    _cancelAll();
    _handles.reset();
}

void CurlMultiThread::_begin(std::shared_ptr<CurlTask> task) {
    if (task->isCompleted()) return;  // cancelled meanwhile
    const CurlTask* key = task.get();
    auto& transfer =
        *(_transfers[key] = std::make_unique<CurlTransfer>(std::move(task), *_handles, _configuration, _cache));
    if (auto outcome = transfer.begin())
        _finish(transfer, *std::move(outcome));
    else
        _add(transfer);
}

void CurlMultiThread::_abandon(const CurlTask* task) {
    const auto found = _transfers.find(task);
    if (found == _transfers.end()) return;
    curl_multi_remove_handle(_multi.get(), found->second->handle());
    _transfers.erase(found);
}

void CurlMultiThread::_collectEnded() {
    int queued = 0;
    while (const CURLMsg* message = curl_multi_info_read(_multi.get(), &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        const CURLcode code = message->data.result;  // gone once the handle is removed
        CURL* handle = message->easy_handle;
        CurlTransfer* transfer = nullptr;
        curl_easy_getinfo(handle, CURLINFO_PRIVATE, &transfer);
        curl_multi_remove_handle(_multi.get(), handle);
        _ended(*transfer, code);
    }
}

void CurlMultiThread::_ended(CurlTransfer& transfer, CURLcode code) {
    if (auto outcome = transfer.next(code))
        _finish(transfer, *std::move(outcome));
    else
        _add(transfer);
}

void CurlMultiThread::_add(CurlTransfer& transfer) {
    const CURLMcode code = curl_multi_add_handle(_multi.get(), transfer.handle());
    if (code == CURLM_OK) return;
    _finish(transfer, {.error = TransportError{TransportError::other, curl_multi_strerror(code)}});
}

void CurlMultiThread::_finish(CurlTransfer& transfer, CurlOutcome outcome) {
    transfer.task()->complete(std::move(outcome), _delivery);
    _transfers.erase(transfer.task().get());
}

void CurlMultiThread::_cancelAll() {
    for (auto& [task, transfer] : _transfers) {
        curl_multi_remove_handle(_multi.get(), transfer->handle());
        transfer->task()->complete({.error = TransportError{TransportError::cancelled, "the session ended"}},
                                   _delivery);
    }
    _transfers.clear();
}

}  // namespace orvex::platform
