#include <fmt/format.h>

#include "core/notifications.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "feedback/client_session_manager_protocol.h"
#include "network/orx_network_request_factory.h"
#include "platform/counters.h"
#include "platform/log_events.h"
#include "platform/notification_center.h"
#include "resources/download_manager.h"

// The transfers: how one is asked for, and what its delegate does when it begins and ends. A task knows its resource by
// a header of its original request, so that it still does after a restart.

namespace orvex {
namespace {

constexpr std::string_view identifierHeader = "X-Kelvar-Download-Identifier";
constexpr std::string_view reasonHeader = "X-Kelvar-Download-Reason";
constexpr std::string_view fetchedCounter = "com.kelvar.orvexd.bag.resourcefilesfetched";
constexpr std::chrono::seconds earliestBegin(60);
constexpr std::chrono::seconds timeWindow = std::chrono::days(1);

const platform::Logger& log() { return OrvexLogForCategory(OrvexLoggingCategory::downloadManager); }

std::string headerOf(const platform::BackgroundTask& task, std::string_view name) {
    return platform::headerValue(task.originalRequest().headers, name).value_or("");
}

std::string described(const platform::HTTPHeaders& headers) {
    std::string text;
    for (const auto& [name, value] : headers) text += fmt::format("{}{}: {}", text.empty() ? "" : ", ", name, value);
    return text;
}

/// Not an answer that there is nothing to install for: 200 to 399.
bool isGood(std::int64_t statusCode) { return statusCode >= 200 && statusCode <= 399; }
bool isInstalled(std::int64_t statusCode) { return statusCode == 200 || statusCode == 206; }

/// The resource as a task that has ended leaves it. An answer without content may come from the URL itself where one
/// with content comes from a redirect: it says nothing of where the file at hand came from.
DownloadResource afterDownload(DownloadResource resource, const platform::BackgroundTask& task) {
    resource.url = urlForCompare(task.originalRequest().url);
    auto current = urlForCompare(task.currentRequest().url);
    const bool redirected = current != resource.url;
    const auto response = task.response();
    if (redirected || (response && isInstalled(response->statusCode)))
        resource.redirectURL = redirected ? std::move(current) : std::nullopt;
    return resource;
}

}  // namespace

std::optional<platform::URLRequest> DownloadManager::_createDownloadRequest(const Download& download) const {
    std::string version;
    if (const auto found = _resources.find(download.identifier);
        found != _resources.end() && download.reason != "missing")
        version = found->second.version();
    auto request = _assembly.requestFactory()->fileDownloadRequest(
        {.url = download.url, .version = version, .includeLatLong = isLookupResource(download.identifier)});
    if (!request) return std::nullopt;
    request->timeWindow = timeWindow;
    request->headers.emplace_back(identifierHeader, download.identifier);
    if (!download.reason.empty()) request->headers.emplace_back(reasonHeader, download.reason);
    return request;
}

// Every resource begins no earlier than that; the delay is told as the resources differ in what they wait for.
void DownloadManager::_downloadResource(const Download& download) {
    auto request = _createDownloadRequest(download);
    if (!request) {
        log().error("no request for the download of {}", download.identifier);
        _assembly.counters().add("com.kelvar.orvexd.resources.dropped.norequest");
        return;
    }
    const double delay = isLookupResource(download.identifier) ? 60.0 : 0.0;
    log().info("starting download of {} reason: {} delay: {:f} headers: {}", download.identifier, download.reason,
               delay, platform::privately(described(request->headers)));
    const auto task = _assembly.downloadURLSession().downloadTask(*std::move(request));
    task->setEarliestBeginDate(_assembly.dispatcher().wallNow() + earliestBegin);
    if (const auto resumed = task->resume(); !resumed) {
        log().error("cannot start the download of {}: {}", download.identifier, resumed.error().text);
        _assembly.counters().add("com.kelvar.orvexd.resources.dropped.notstarted");
    }
}

void DownloadManager::willBeginDelayedRequest(const std::shared_ptr<platform::BackgroundTask>& task,
                                              const platform::URLRequest& request, Begin begin) {
    const auto identifier = headerOf(*task, identifierHeader);
    const auto reason = headerOf(*task, reasonHeader);
    log().debug("will begin {} url {}", identifier, task->originalRequest().url);
    if (!isLookupResource(identifier)) return begin(std::nullopt);

    auto fresh = _queue.sync([&] {
        _queue.assertCurrent();
        return _createDownloadRequest({.identifier = identifier, .url = request.url, .reason = reason});
    });
    log().debug("orig lookup headers: {}", described(task->originalRequest().headers));
    log().debug("new lookup headers: {}", fresh ? described(fresh->headers) : "(null)");
    log().debug("new url: {} reason: {}", fresh ? fresh->url : "(null)", reason);
    begin(std::move(fresh));
}

void DownloadManager::didFinishDownloading(const std::shared_ptr<platform::BackgroundTask>& task,
                                           platform::DownloadedFile& file) {
    const auto response = task->response();
    const std::int64_t status = response ? response->statusCode : 0;
    const auto& url = task->originalRequest().url;
    if (!isGood(status)) {
        log()
            .as(platform::LogEvent::downloadFailed, {{"ORVEX_RESOURCE", headerOf(*task, identifierHeader)},
                                                     {"ORVEX_REASON", fmt::format("status {}", status)}})
            .error("download of {} got a {} response", platform::privately(url), status);
        return;
    }
    if (!isInstalled(status)) return;
    _start();
    log().log("download of {} finished {}", platform::privately(url), file.path());
    _queue.sync([&] {
        _queue.assertCurrent();
        _install(*task, file);
    });
}

// On the queue as a whole: a resource that is deleted meanwhile must not get its file back.
void DownloadManager::_install(const platform::BackgroundTask& task, platform::DownloadedFile& file) {
    const auto identifier = headerOf(task, identifierHeader);
    const auto& url = task.originalRequest().url;
    const auto found = _resources.find(identifier);
    if (found == _resources.end()) {
        log().log("failed to find download for identifier: {} url: {}", identifier, platform::privately(url));
        return;
    }
    const auto caches = _assembly.fileManager().cachesDirectory();
    if (!caches) {
        log().log("failed getting destination URL for {}", identifier);
        return;
    }
    if (const auto moved = file.moveTo(**caches, identifier); !moved) {
        log().log("error copying download {}", moved.error().text);
        _assembly.counters().add("com.kelvar.orvexd.resources.dropped.notinstalled");
        return;
    }
    _assembly.counters().add(fetchedCounter);
    _assembly.notificationCenter().post(
        ORXFileDownloadCompletedNotification{.identifier = identifier,
                                             .url = (*caches)->path() + '/' + identifier,
                                             .version = afterDownload(found->second, task).version()});
}

void DownloadManager::didComplete(const std::shared_ptr<platform::BackgroundTask>& task,
                                  std::optional<platform::TransportError> error) {
    if (error && error->code == platform::TransportError::cancelled) return;
    if (const auto response = task->response(); response && response->isHTTP && !isGood(response->statusCode)) {
        _report(fmt::format("status code {}", response->statusCode));
    } else if (task->originalRequest().url.empty()) {
        log().log("task completed with nil url and error: {}", error ? error->reason : "(null)");
    } else if (error) {
        const ORXError described(kORXURLErrorDomain, error->code, error->reason);
        log()
            .as(platform::LogEvent::downloadFailed,
                {{"ORVEX_RESOURCE", headerOf(*task, identifierHeader)}, {"ORVEX_REASON", described.description()}})
            .log("download task error {}", described.description());
        _report(fmt::format("download error {} {}", described.domain, described.code));
    } else {
        _start();
        _queue.sync([&] {
            _queue.assertCurrent();
            _didSucceed(*task);
        });
    }
}

void DownloadManager::_didSucceed(const platform::BackgroundTask& task) {
    const auto identifier = headerOf(task, identifierHeader);
    const auto found = _resources.find(identifier);
    if (found == _resources.end()) {
        log().error("could not find resource for download identifier: {} url: {}", identifier,
                    platform::privately(task.originalRequest().url));
        const platform::MainQueue main(_assembly.dispatcher());
        main.async([weak = weak_from_this(), reason = fmt::format("can't find {}", identifier)] {
            if (const auto self = weak.lock()) self->_report(reason);
        });
        return;
    }
    found->second = afterDownload(std::move(found->second), task);
    log().log("{} url: {}", identifier, platform::privately(platform::orNull(found->second.url)));
    _assembly.counters().add(fetchedCounter);
    _saveResources();
}

void DownloadManager::_report(const std::string& reason) {
    _assembly.counters().add("com.kelvar.orvexd.resources.errors");
    reportErrorAsOrvexdFeedback(ORXError(ORXErrorCode::internal, reason), _assembly);
}

}  // namespace orvex
