#include "daemon/assembly.h"

#include "platform/http_session.h"
#include "platform/user_defaults.h"

namespace orvex {

Assembly::Assembly(Platform platform) : _platform(std::move(platform)) {}
Assembly::~Assembly() = default;

bool Assembly::useCindora() const { return userDefaults().boolean("ORXUseCindora"); }

platform::URLSession& Assembly::urlSession() {
    std::call_once(_urlSessionOnce, [this] {
        _urlSession = _platform.urlSessions.makeSession({
            .label = "com.kelvar.orvexd.urlSession",
            .allowsFastOpen = !userDefaults().boolean("ORXNoParallax"),
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

const std::shared_ptr<EngagedCompletionCache>& Assembly::engagedCompletionCache(
    const std::function<std::shared_ptr<EngagedCompletionCache>()>& make) {
    std::call_once(_engagedCompletionCacheOnce, [&] { _engagedCompletionCache = make(); });
    return _engagedCompletionCache;
}

}  // namespace orvex
