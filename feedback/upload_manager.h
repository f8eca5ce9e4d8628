#pragma once

#include <boost/json/fwd.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/notifications.h"
#include "platform/background_session.h"
#include "platform/dispatch.h"
#include "platform/file_manager.h"

namespace orvex::platform {
class AppendFile;
}
namespace orvex {

class Assembly;
class ORXBag;

/// Brings feedback to the server: compresses a session's dictionary or a report's file into a new file, and hands it
/// with a request to the upload session, which tries until it has an answer. Here nothing is tried twice: an end is
/// counted and logged.
///
/// Life cycle: made before the bag controller; the two endpoints come with each bag notification. Threading: callable
/// from any thread, but not from the upload session's delegate queue; uploads are compressed on the caller's.
/// Memory: fixed buffers, however large the upload.
/// What is dropped is counted: "com.kelvar.orvexd.upload.dropped." and `noendpoint` (the bag names none), `notempfile`
/// (no temporary file), `compression` (a report that could not be read or compressed; a session counts as not sent),
/// `norequest` (the endpoint is no URL to send to), `pending` (100 are pending already), `notstored` (the session
/// refused it).
class UploadManager final : public platform::BackgroundSessionDelegate,
                            public std::enable_shared_from_this<UploadManager> {
public:
    enum class Endpoint : int { crowdsourcing = 0, feedback = 1 };
    static constexpr std::size_t maxPendingUploads = 100;
    static constexpr std::chrono::seconds requestTimeout{300};

    /// What must last until an upload is stored by the session, or it is certain that it will not be; then it is let
    /// go, on any queue.
    using Held = std::shared_ptr<const void>;

    static std::shared_ptr<UploadManager> create(Assembly& assembly);
    ~UploadManager() override;

    /// Empties the directory of uploads that were being made when the process ended. For start-up.
    static void removeTemporaryFiles(platform::FileManager& fileManager);

    /// `feedback` counts as many feedbacks as it has elements. Returns the compressed file, for reading, also when
    /// there is no endpoint and nothing is sent; none when it could not be made.
    std::optional<platform::FileDescriptor> uploadJSONFeedback(const boost::json::object& feedback, Endpoint toEndpoint,
                                                               Held held);

    struct Report {
        const platform::OpenFile& file;
        std::string_view path;  ///< for log lines
    };
    /// The file up to the size that it had when it was opened, though it has grown since. `ofType` goes to the server
    /// as the query item "type", unless it is empty.
    void uploadFeedback(const Report& report, std::string_view ofType, Endpoint toEndpoint);

    /// How many uploads the session has, on its delegate queue.
    void countPendingUploads(std::move_only_function<void(std::size_t count)> completion);

    [[nodiscard]] std::optional<std::string> feedbackEndpoint() const;
    void setFeedbackEndpoint(std::optional<std::string> endpoint);
    [[nodiscard]] std::optional<std::string> crowdsourcingEndpoint() const;
    void setCrowdsourcingEndpoint(std::optional<std::string> endpoint);

    void didSendBodyData(const std::shared_ptr<platform::BackgroundTask>& task, BodyProgress progress) override;
    void didComplete(const std::shared_ptr<platform::BackgroundTask>& task,
                     std::optional<platform::TransportError> error) override;
    void didBecomeInvalid(std::optional<platform::TransportError> error) override;

private:
    /// A file below the state directory that is being written.
    struct TemporaryFile {
        std::string name;  ///< relative to the state directory
        std::shared_ptr<platform::AppendFile> file;
    };
    struct Upload {
        platform::URLRequest request;
        std::string file;
        std::uint64_t numberOfFeedbacks;
        Held held;
    };

    explicit UploadManager(Assembly& assembly);
    void _bagDidChange(const ORXBagChangeNotification& notification);
    void _takeEndpoints(const ORXBag& bag);
    [[nodiscard]] std::optional<std::string> _urlForEndpoint(Endpoint endpoint, std::string_view type) const;
    [[nodiscard]] std::optional<TemporaryFile> _makeTempFileWithAnnotation(std::string_view annotation) const;
    void _send(std::string_view url, std::string_view digest, std::string file, std::uint64_t numberOfFeedbacks,
               Held held);
    void _enqueue(Upload upload);
    void _start(Upload upload, std::size_t pending);
    void _drop(std::string_view counter) const;
    void _remove(const std::string& file) const;

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by itself.
    mutable platform::SerialQueue _queue;

    // On the queue.
    std::optional<std::string> _crowdsourcingEndpoint ORX_GUARDED_BY(_queue);
    std::optional<std::string> _feedbackEndpoint ORX_GUARDED_BY(_queue);
};

}  // namespace orvex
