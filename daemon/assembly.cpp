#include "daemon/assembly.h"

#include "core/settings.h"
#include "platform/background_session.h"
#include "platform/http_session.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

constexpr std::string_view uploadIdentifier = "com.kelvar.orvexd.flusher.nsurlsession";
constexpr std::string_view downloadIdentifier = "com.kelvar.orvexd";

}  // namespace

Assembly::Assembly(Platform platform) : _platform(std::move(platform)) {}
Assembly::~Assembly() = default;

bool Assembly::useCindora() const { return userDefaults().boolean(setting::useCindora); }

platform::URLSession& Assembly::urlSession() {
    std::call_once(_urlSessionOnce, [this] {
        _urlSession = _platform.urlSessions.makeSession({
            .label = "com.kelvar.orvexd.urlSession",
            .allowsFastOpen = !userDefaults().boolean(setting::noParallax),
            .cacheMemoryCapacity = std::size_t{4} << 20,
            .certificateAuthorityFile = _platform.certificateAuthorityFile,
        });
        _madeURLSession = _urlSession.get();
    });
    return *_urlSession;
}

platform::URLSession* Assembly::urlSessionIfMade() const { return _madeURLSession; }

platform::URLSession& Assembly::bagSession() {
    std::call_once(_bagSessionOnce, [this] {
        _bagSession = _platform.urlSessions.makeSession({
            .label = "com.kelvar.orvexd.bagSession",
            .maxBodyBytes = std::size_t{4} << 20,
            .certificateAuthorityFile = _platform.certificateAuthorityFile,
        });
    });
    return *_bagSession;
}

platform::BackgroundSession& Assembly::uploadURLSession() {
    std::call_once(_uploadURLSessionOnce, [this] {
        _uploadURLSession = _platform.backgroundSessions->makeSession(
            {
                .identifier = std::string(uploadIdentifier),
                .discretionary = true,
                .requestTimeout = std::chrono::seconds(300),
                .resourceTimeout = std::chrono::seconds(604800),
                .certificateAuthorityFile = _platform.certificateAuthorityFile,
            },
            _uploadDelegate);
        _madeUploadURLSession = _uploadURLSession.get();
    });
    return *_uploadURLSession;
}

platform::BackgroundSession& Assembly::downloadURLSession() {
    std::call_once(_downloadURLSessionOnce, [this] {
        _downloadURLSession = _platform.backgroundSessions->makeSession(
            {
                .identifier = std::string(downloadIdentifier),
                .discretionary = true,
                .allowsExpensiveNetworkAccess = false,
                .maxTasks = 500,
                .certificateAuthorityFile = _platform.certificateAuthorityFile,
            },
            _downloadDelegate);
        _madeDownloadURLSession = _downloadURLSession.get();
    });
    return *_downloadURLSession;
}

void Assembly::setUploadDelegate(std::weak_ptr<platform::BackgroundSessionDelegate> delegate) {
    _uploadDelegate = std::move(delegate);
}

void Assembly::setDownloadDelegate(std::weak_ptr<platform::BackgroundSessionDelegate> delegate) {
    _downloadDelegate = std::move(delegate);
}

void Assembly::resumeStoredTransfers() {
    auto* sessions = _platform.backgroundSessions;
    if (sessions == nullptr) return;
    if (sessions->hasStoredTasks(uploadIdentifier)) (void)uploadURLSession();
    if (sessions->hasStoredTasks(downloadIdentifier)) (void)downloadURLSession();
    sessions->startUpIsThrough();
}

const std::shared_ptr<EngagedCompletionCache>& Assembly::engagedCompletionCache(
    const std::function<std::shared_ptr<EngagedCompletionCache>()>& make) {
    std::call_once(_engagedCompletionCacheOnce, [&] { _engagedCompletionCache = make(); });
    return _engagedCompletionCache;
}

}  // namespace orvex
