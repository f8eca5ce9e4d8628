#pragma once

#include <curl/curl.h>

#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/http_session.h"
#include "platform/linux/curl_transfer.h"
#include "platform/linux/delivery_thread.h"
#include "platform/thread_annotations.h"
#include "platform/url_cache.h"

namespace orvex::platform {

class CurlTask;

/// What a session on libcurl runs on: its cache, the transfer thread, which alone touches the multi handle and all
/// transfers, and the delivery thread, which runs completions. Each thread starts with the first task that needs it.
/// The transfer thread blocks in curl_multi_poll; while nothing is under way it does so without a time-out and is woken
/// by `start` only.
///
/// Threading: callable from any thread.
class CurlMultiThread {
public:
    explicit CurlMultiThread(URLSessionConfiguration configuration);
    ~CurlMultiThread();  ///< closes
    CurlMultiThread(const CurlMultiThread&) = delete;
    CurlMultiThread& operator=(const CurlMultiThread&) = delete;

    /// False once closed: the task will not complete. Where no transfer can be started it ends with an error.
    bool start(std::shared_ptr<CurlTask> task);

    /// Ends the transfer of a task that was completed by other means.
    void abandon(std::shared_ptr<CurlTask> task);

    /// Cancels what is under way and waits for the completions; from within one of them it waits for none.
    void close();

    [[nodiscard]] DeliveryThread& delivery() { return _delivery; }
    [[nodiscard]] URLCache& cache() { return _cache; }

private:
    struct MultiCleanup {
        void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
    };
    struct Orders {
        std::vector<std::shared_ptr<CurlTask>> started;
        std::vector<std::shared_ptr<CurlTask>> abandoned;
        bool closing = false;
    };

    /// False where the system has nothing to start it with; the next task tries again.
    [[nodiscard]] bool _launch() ORX_REQUIRES(_mutex);
    [[nodiscard]] Orders _takeOrders();

    // On the transfer thread.
    void _run();
    void _begin(std::shared_ptr<CurlTask> task);
    void _abandon(const CurlTask* task);
    void _collectEnded();
    void _ended(CurlTransfer& transfer, CURLcode code);
    void _add(CurlTransfer& transfer);
    void _finish(CurlTransfer& transfer, CurlOutcome outcome);
    void _cancelAll();

    // Constant after construction; the handle from the launch on.
    const URLSessionConfiguration _configuration;
    std::unique_ptr<CURLM, MultiCleanup> _multi;

    // Synchronised by themselves.
    DeliveryThread _delivery;
    URLCache _cache;

    // Guarded by the mutex.
    Mutex _mutex;
    Orders _orders ORX_GUARDED_BY(_mutex);
    std::thread _thread ORX_GUARDED_BY(_mutex);

    // On the transfer thread.
    std::unique_ptr<CurlHandlePool> _handles;  ///< outlives the transfers
    std::unordered_map<const CurlTask*, std::unique_ptr<CurlTransfer>> _transfers;
};

}  // namespace orvex::platform
