#include "platform/linux/transfer_runner.h"

#include <algorithm>

namespace orvex::platform {
namespace {

using BodyProgress = BackgroundSessionDelegate::BodyProgress;

/// Of many reports of libcurl's, the few that are worth a hop to another thread.
class SparseProgress {
public:
    SparseProgress(std::uint64_t total, std::function<void(BodyProgress)> report)
        : _total(total),
          _report(std::move(report)) {}

    void operator()(std::uint64_t sent) {
        sent = std::min(sent, _total);
        if (sent <= _reported || (sent < _total && sent - _reported < TransferRunner::progressBytes)) return;
        _report({.bytesSent = sent - std::exchange(_reported, sent),
                 .totalBytesSent = sent,
                 .totalBytesExpectedToSend = _total});
    }

private:
    const std::uint64_t _total;
    const std::function<void(BodyProgress)> _report;
    std::uint64_t _reported = 0;
};

}  // namespace

bool TransferAnswer::isTemporary() const {
    if (error) return !error->isPermanent;
    return response && isTemporaryStatus(response->statusCode);
}

TransferRunner::TransferRunner(URLSessionFactory& urlSessions, const BackgroundSessionConfiguration& configuration,
                               std::shared_ptr<TransferSpool> spool)
    : _urlSessions(urlSessions),
      _configuration(configuration),
      _spool(std::move(spool)) {}

Result<std::shared_ptr<URLSessionTask>> TransferRunner::start(Order order) {
    auto files = _files(order);
    if (!files) return std::unexpected(files.error());
    const std::chrono::nanoseconds silence = order.request.timeout.value_or(_configuration.requestTimeout);
    files->longestSilence = std::max(std::chrono::ceil<std::chrono::seconds>(silence), std::chrono::seconds(1));
    order.request.timeout = order.timeLeft;

    if (!_urlSession)
        _urlSession = _urlSessions.makeSession({.label = _configuration.identifier,
                                                .maxBodyBytes = _configuration.maxDownloadBytes,
                                                .certificateAuthorityFile = _configuration.certificateAuthorityFile});
    auto task = _urlSession->dataTask(std::move(order.request),
                                      [ended = std::move(order.ended)](Body, std::optional<URLResponse> response,
                                                                       std::optional<TransportError> error) mutable {
                                          ended({.response = std::move(response), .error = std::move(error)});
                                      });
    task->setFiles(*std::move(files));
    task->resume();
    return task;
}

Result<FileTransfer> TransferRunner::_files(Order& order) {
    FileTransfer files;
    if (order.direction == TransferDirection::download) {
        auto file = _spool->makeDownload(order.number);
        if (!file) return std::unexpected(file.error());
        files.answer = *std::move(file);
        return files;
    }
    auto body = _spool->openBody(order.number);
    if (!body) return std::unexpected(body.error());
    files.bodyBytes = body->attributes.size;
    files.body = std::move(body->descriptor);
    files.progress = [progress = std::make_shared<SparseProgress>(files.bodyBytes, std::move(order.progress))](
                         std::uint64_t sent, std::uint64_t) { (*progress)(sent); };
    return files;
}

}  // namespace orvex::platform
