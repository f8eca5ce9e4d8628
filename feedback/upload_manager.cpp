#include "feedback/upload_manager.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <boost/json/object.hpp>
#include <cerrno>

#include "core/compressed_output_stream.h"
#include "core/http_description.h"
#include "core/json.h"
#include "core/orx_bag.h"
#include "core/output_stream.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "network/bag_controller.h"
#include "network/orx_network_request_factory.h"
#include "platform/append_file.h"
#include "platform/counters.h"
#include "platform/log_events.h"
#include "platform/notification_center.h"
#include "platform/text.h"
#include "platform/url.h"
#include "platform/uuid.h"

namespace orvex {
namespace {

constexpr std::string_view temporaryDirectory = "tmp";

const platform::Logger& uploadLog() { return OrvexLogForCategory(OrvexLoggingCategory::uploadManager); }

/// A file as the target of a stream.
class FileOutputStream final : public OutputStream {
public:
    explicit FileOutputStream(std::shared_ptr<platform::AppendFile> file) : _file(std::move(file)) {}

    std::int64_t write(std::string_view bytes) override {
        if (_status != StreamStatus::open) return -1;
        if (const auto written = _file->append(bytes); !written) return _fail(written.error());
        return std::ssize(bytes);
    }
    void close() override {
        if (_status == StreamStatus::open) _status = StreamStatus::atEnd;
    }
    [[nodiscard]] StreamStatus streamStatus() const override { return _status; }
    [[nodiscard]] std::optional<ORXError> streamError() const override { return _error; }

private:
    std::int64_t _fail(const platform::Failure& failure) {
        _status = StreamStatus::error;
        _error = ORXError(ORXErrorCode::internal, failure.text);
        return -1;
    }

    const std::shared_ptr<platform::AppendFile> _file;
    StreamStatus _status = StreamStatus::open;
    std::optional<ORXError> _error;
};

/// Writes `object` and closes `stream`.
void writeJSON(const boost::json::object& object, OutputStream& stream) {
    PieceOutputStream pieces(stream, kORXUploadPieceBytes);
    pieces.write(compactJSON(object));
    pieces.close();
}

/// Writes the file and closes `stream`. What the last read said: 0 or more, -1 when it failed.
std::int64_t copyFile(const platform::OpenFile& file, OutputStream& stream) {
    std::array<char, kORXUploadPieceBytes> buffer;
    PieceOutputStream pieces(stream, kORXUploadPieceBytes);
    std::int64_t lastRead = 1;
    for (auto rest = file.attributes.size; lastRead > 0 && rest > 0 && stream.streamStatus() == StreamStatus::open;) {
        const auto count = file.descriptor.read(buffer.data(), std::min<std::uint64_t>(rest, buffer.size()));
        lastRead = count ? static_cast<std::int64_t>(*count) : -1;
        if (lastRead <= 0) break;
        pieces.write({buffer.data(), *count});
        rest -= *count;
    }
    pieces.close();
    return lastRead;
}

/// The text of `url` with one more query item; none when it is no URL.
std::optional<std::string> appendingQueryItem(std::string_view url, std::string_view name, std::string_view value) {
    auto parsed = platform::parseURL(url);
    if (!parsed) return std::nullopt;
    std::string query = parsed->query.value_or("");
    if (!query.empty()) query += '&';
    query += platform::percentEncode(name) + "=" + platform::percentEncode(value);
    parsed->query = std::move(query);
    return parsed->absoluteString();
}

std::string described(const std::optional<platform::TransportError>& error) {
    if (!error) return "(null)";
    return ORXError(kORXURLErrorDomain, error->code, error->reason).description();
}

std::optional<std::string> fetchFeedbackEndpointFromBag(const ORXBag& bag) {
    if (!bag.feedbackURL() || !bag.feedbackEnabled()) return std::nullopt;
    return appendingQueryItem(*bag.feedbackURL(), "v", "2");
}

std::optional<std::string> fetchCrowdsourcingEndpointFromBag(const ORXBag& bag) {
    return bag.feedbackEnabled() ? bag.crowdsourcingURL() : std::nullopt;
}

}  // namespace

std::shared_ptr<UploadManager> UploadManager::create(Assembly& assembly) {
    std::shared_ptr<UploadManager> manager(new UploadManager(assembly));
    assembly.notificationCenter().observe<ORXBagChangeNotification>(manager, &UploadManager::_bagDidChange);
    if (const auto& bags = assembly.bagController()) {
        if (const auto bag = bags->inMemoryBag()) manager->_takeEndpoints(*bag);
    }
    return manager;
}

UploadManager::UploadManager(Assembly& assembly)
    : _assembly(assembly),
      _queue(assembly.dispatcher(), "com.kelvar.orvexd.uploadmanager") {}

UploadManager::~UploadManager() { _queue.close(); }

void UploadManager::removeTemporaryFiles(platform::FileManager& fileManager) {
    const auto state = fileManager.stateDirectory();
    if (!state) return;
    const auto directory = (*state)->directory(temporaryDirectory);
    const auto names = directory ? (*directory)->list() : std::unexpected(directory.error());
    if (!names) {
        uploadLog().error("cannot empty {}: {}", temporaryDirectory, names.error().text);
        return;
    }
    for (const auto& name : *names) {
        if (const auto removed = (*directory)->remove(name); !removed) uploadLog().error("{}", removed.error().text);
    }
}

void UploadManager::_bagDidChange(const ORXBagChangeNotification& notification) {
    uploadLog().debug("bag change notification received");
    if (notification.bag) _takeEndpoints(*notification.bag);
}

void UploadManager::_takeEndpoints(const ORXBag& bag) {
    setFeedbackEndpoint(fetchFeedbackEndpointFromBag(bag));
    setCrowdsourcingEndpoint(fetchCrowdsourcingEndpointFromBag(bag));
}

std::optional<std::string> UploadManager::feedbackEndpoint() const {
    return _queue.sync([this] {
        _queue.assertCurrent();
        return _feedbackEndpoint;
    });
}

void UploadManager::setFeedbackEndpoint(std::optional<std::string> endpoint) {
    _queue.async([this, endpoint = std::move(endpoint)]() mutable {
        _queue.assertCurrent();
        _feedbackEndpoint = std::move(endpoint);
    });
}

std::optional<std::string> UploadManager::crowdsourcingEndpoint() const {
    return _queue.sync([this] {
        _queue.assertCurrent();
        return _crowdsourcingEndpoint;
    });
}

void UploadManager::setCrowdsourcingEndpoint(std::optional<std::string> endpoint) {
    _queue.async([this, endpoint = std::move(endpoint)]() mutable {
        _queue.assertCurrent();
        _crowdsourcingEndpoint = std::move(endpoint);
    });
}

std::optional<std::string> UploadManager::_urlForEndpoint(Endpoint endpoint, std::string_view type) const {
    auto url = endpoint == Endpoint::crowdsourcing ? crowdsourcingEndpoint() : feedbackEndpoint();
    if (!url || type.empty()) return url;
    return appendingQueryItem(*url, "type", type);
}

std::optional<UploadManager::TemporaryFile> UploadManager::_makeTempFileWithAnnotation(
    std::string_view annotation) const {
    const auto state = _assembly.fileManager().stateDirectory();
    if (!state || !(*state)->makeDirectory(temporaryDirectory)) return std::nullopt;
    while (true) {
        auto name = fmt::format("{}/com.kelvar.orvexd.upload_{}_{}", temporaryDirectory, annotation,
                                platform::newUUIDString().substr(0, 6));
        auto file = (*state)->createFile(name);
        if (file) return TemporaryFile{.name = std::move(name), .file = *std::move(file)};
        if (file.error().code != EEXIST) return std::nullopt;
    }
}

std::optional<platform::FileDescriptor> UploadManager::uploadJSONFeedback(const boost::json::object& feedback,
                                                                          Endpoint toEndpoint, Held held) {
    const auto temporary = _makeTempFileWithAnnotation("orvex");
    if (!temporary) {
        uploadLog().error("Error getting temp file.");
        _drop("com.kelvar.orvexd.upload.dropped.notempfile");
        return std::nullopt;
    }
    uploadLog().debug("Compressing data for upload to {}", temporary->name);
    CompressedOutputStream stream(std::make_unique<FileOutputStream>(temporary->file));
    writeJSON(feedback, stream);
    if (stream.streamStatus() != StreamStatus::atEnd) {
        const auto error = stream.outputStream().streamError();
        uploadLog().error("Invalid JSON Object {} error {}", platform::privately("object"),
                          error ? error->description() : "(null)");
        _assembly.counters().add("com.kelvar.orvexd.feedbacknotsent");
        _remove(temporary->name);
        return std::nullopt;
    }
    const auto state = _assembly.fileManager().stateDirectory();
    auto compressed = state ? (*state)->openFile(temporary->name) : std::unexpected(state.error());
    if (!compressed) {
        uploadLog().error("Couldn't find file {} after compression.", temporary->name);
        _drop("com.kelvar.orvexd.upload.dropped.notempfile");
        return std::nullopt;
    }
    if (const auto url = _urlForEndpoint(toEndpoint, {})) {
        _send(*url, stream.dataDigestForStream(), temporary->name, feedback.size(), std::move(held));
    } else {
        _drop("com.kelvar.orvexd.upload.dropped.noendpoint");
        _remove(temporary->name);
    }
    return std::move(compressed->descriptor);
}

void UploadManager::uploadFeedback(const Report& report, std::string_view ofType, Endpoint toEndpoint) {
    const auto url = _urlForEndpoint(toEndpoint, ofType);
    if (!url) {
        uploadLog().error("Server feedback endpoint not set, data can't be sent to server");
        return _drop("com.kelvar.orvexd.upload.dropped.noendpoint");
    }
    uploadLog().debug("uploadFile: {}", report.path);
    const auto temporary = _makeTempFileWithAnnotation(ofType);
    if (!temporary) {
        uploadLog().error("Error getting temp file.");
        return _drop("com.kelvar.orvexd.upload.dropped.notempfile");
    }
    uploadLog().debug("Compressing data for upload to {}", temporary->name);
    CompressedOutputStream stream(std::make_unique<FileOutputStream>(temporary->file));
    const auto lastRead = copyFile(report.file, stream);
    if (lastRead == -1 || stream.streamStatus() != StreamStatus::atEnd) {
        uploadLog().error("Compression for upload failed");
        _drop("com.kelvar.orvexd.upload.dropped.compression");
        return _remove(temporary->name);
    }
    _send(*url, stream.dataDigestForStream(), temporary->name, 0, nullptr);
}

void UploadManager::_send(std::string_view url, std::string_view digest, std::string file,
                          std::uint64_t numberOfFeedbacks, Held held) {
    const auto& factory = _assembly.requestFactory();
    auto request = factory ? factory->flusherUploadRequest({.url = url, .timeout = requestTimeout, .digest = digest})
                           : std::nullopt;
    if (!request) {
        uploadLog().error("no request for upload to {}", describedURL(url));
        _drop("com.kelvar.orvexd.upload.dropped.norequest");
        return _remove(file);
    }
    _enqueue({.request = *std::move(request),
              .file = std::move(file),
              .numberOfFeedbacks = numberOfFeedbacks,
              .held = std::move(held)});
}

void UploadManager::_enqueue(Upload upload) {
    _assembly.uploadURLSession().getAllTasks(
        [weak = weak_from_this(), upload = std::move(upload)](const platform::BackgroundTasks& tasks) mutable {
            if (const auto self = weak.lock()) self->_start(std::move(upload), tasks.size());
        });
}

void UploadManager::_start(Upload upload, std::size_t pending) {
    if (pending >= maxPendingUploads) {
        // Its file stays until the next start.
        uploadLog()
            .as(platform::LogEvent::transferDropped, {{"ORVEX_REASON", "pending"}})
            .error("too many uploads pending: {}", pending);
        return _drop("com.kelvar.orvexd.upload.dropped.pending");
    }
    uploadLog().debug("Enqueuing for upload: {}, headers {}", upload.file, describedHeaders(upload.request.headers));
    const auto task = _assembly.uploadURLSession().uploadTask(std::move(upload.request), upload.file);
    task->setNumberOfFeedbacks(upload.numberOfFeedbacks);
    if (const auto stored = task->resume(); !stored) {
        uploadLog()
            .as(platform::LogEvent::transferDropped, {{"ORVEX_REASON", stored.error().text}})
            .error("upload was not stored: {}", stored.error().text);
        _drop("com.kelvar.orvexd.upload.dropped.notstored");
        _remove(upload.file);
    }
}

void UploadManager::_drop(std::string_view counter) const { _assembly.counters().add(counter); }

void UploadManager::_remove(const std::string& file) const {
    const auto state = _assembly.fileManager().stateDirectory();
    const auto removed = state ? (*state)->remove(file) : std::unexpected(state.error());
    if (!removed) uploadLog().error("{}", removed.error().text);
}

void UploadManager::countPendingUploads(std::move_only_function<void(std::size_t count)> completion) {
    _assembly.uploadURLSession().getAllTasks(
        [completion = std::move(completion)](const platform::BackgroundTasks& tasks) mutable {
            completion(tasks.size());
        });
}

void UploadManager::didSendBodyData(const std::shared_ptr<platform::BackgroundTask>& task, BodyProgress progress) {
    const float fraction =
        static_cast<float>(progress.totalBytesSent) / static_cast<float>(progress.totalBytesExpectedToSend);
    uploadLog().debug("task {}, transfer {:f} complete", task->identifier(), fraction);
}

void UploadManager::didComplete(const std::shared_ptr<platform::BackgroundTask>& task,
                                std::optional<platform::TransportError> error) {
    auto& counters = _assembly.counters();
    if (error && error->code == platform::TransportError::timedOut) {
        counters.add("com.kelvar.orvexd.fbrequesttimedout");
    }
    const auto number = static_cast<std::int64_t>(task->numberOfFeedbacks());
    task->setNumberOfFeedbacks(0);
    const auto response = task->response();
    const std::int64_t statusCode = response ? response->statusCode : 0;
    if (statusCode == 200) {
        counters.add("com.kelvar.orvexd.feedbacksent", number);
    } else {
        uploadLog()
            .as(platform::LogEvent::uploadFailed, {{"ORVEX_STATUS", statusCode}})
            .fault("response error {}", describedResponse(response));
        counters.add("com.kelvar.orvexd.feedbacknotsent", number);
    }
    uploadLog().debug("URLSession:task:didCompleteWithError: id={}, error={}, statusCode={}", task->identifier(),
                      described(error), statusCode);
}

void UploadManager::didBecomeInvalid(std::optional<platform::TransportError> error) {
    uploadLog().error("Session became invalid: {}", described(error));
}

}  // namespace orvex
