#include "platform/linux/curl_session.h"

#include <curl/curl.h>

#include <stdexcept>

#include "platform/linux/curl_multi_thread.h"
#include "platform/linux/curl_task.h"
#include "platform/linux/steady_time.h"

namespace orvex::platform {
namespace {

/// The owner of a session's threads. Tasks hold them weakly, so that one left over keeps no thread running.
class CurlSession final : public URLSession {
public:
    explicit CurlSession(URLSessionConfiguration configuration)
        : _threads(std::make_shared<CurlMultiThread>(std::move(configuration))) {}
    ~CurlSession() override { _threads->close(); }

    std::shared_ptr<URLSessionTask> dataTask(URLRequest request, DataTaskCompletion completion) override {
        return std::make_shared<CurlTask>(_threads, std::move(request), std::move(completion));
    }
    bool purgeMemoryCache() override { return _threads->cache().purge(steadyNow()); }

private:
    const std::shared_ptr<CurlMultiThread> _threads;
};

}  // namespace

std::shared_ptr<URLSession> CurlSessionFactory::makeSession(URLSessionConfiguration configuration) {
    // Once a process, and never undone: threads of libcurl's resolver may outlive every session.
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (initialised != CURLE_OK) throw std::runtime_error(curl_easy_strerror(initialised));
    return std::make_shared<CurlSession>(std::move(configuration));
}

}  // namespace orvex::platform
