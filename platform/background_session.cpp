#include "platform/background_session.h"

namespace orvex::platform {

std::string_view name(BackgroundTaskState state) {
    switch (state) {
        case BackgroundTaskState::made:
            return "made";
        case BackgroundTaskState::waiting:
            return "waiting";
        case BackgroundTaskState::beginning:
            return "beginning";
        case BackgroundTaskState::running:
            return "running";
        case BackgroundTaskState::ended:
            return "ended";
        case BackgroundTaskState::told:
            return "told";
    }
    return "?";
}

bool isTemporaryStatus(std::int64_t statusCode) {
    return statusCode == 408 || statusCode == 429 || (statusCode >= 502 && statusCode <= 504);
}

void BackgroundSessionDelegate::willBeginDelayedRequest(const std::shared_ptr<BackgroundTask>&, const URLRequest&,
                                                        Begin begin) {
    begin(std::nullopt);
}

void BackgroundSessionDelegate::didSendBodyData(const std::shared_ptr<BackgroundTask>&, BodyProgress) {}

void BackgroundSessionDelegate::didFinishDownloading(const std::shared_ptr<BackgroundTask>&, DownloadedFile&) {}

void BackgroundSessionDelegate::didBecomeInvalid(std::optional<TransportError>) {}

}  // namespace orvex::platform
