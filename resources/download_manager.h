#pragma once

#include <atomic>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/orx_error.h"
#include "platform/background_session.h"
#include "platform/dispatch.h"
#include "platform/file_manager.h"
#include "platform/thread_annotations.h"
#include "resources/download_resource.h"

namespace orvex {

class Assembly;
class ORXBag;
struct ORXBagChangeNotification;

/// Keeps the files that the bag lists in step with it: downloads what is new or has changed, deletes what the bag no
/// longer lists, remembers where each came from, and hands the files out.
///
/// Life of a resource, whose file has its identifier for a name in the caches directory:
///
///     unknown ──the bag lists it──▶ known ──its download is installed──▶ known, with a file ──┐
///                                     ▲  ▲────another URL, the file is gone, lookup hints──────┘
///     the saved list, at first use ───┘
///     known ──the bag lists it no more, or without a URL──▶ unknown, its file deleted
///
/// Every bag change cancels all downloads and starts anew from its list; of several that come at once only the last is
/// carried out. A download replaces the old file whole or leaves it; failures leave it.
///
/// Threading: callable from any thread, except from the manager's own queue. Operations hop onto it, and the delegate's
/// calls wait for it. Notifications are posted from it.
/// Durability: the list is in the user defaults, under "download_resources", when an operation that changed it is over.
class DownloadManager final : public platform::BackgroundSessionDelegate,
                              public std::enable_shared_from_this<DownloadManager> {
public:
    /// Does not read the saved list yet.
    static std::shared_ptr<DownloadManager> create(Assembly& assembly);
    ~DownloadManager() override;
    DownloadManager(const DownloadManager&) = delete;
    DownloadManager& operator=(const DownloadManager&) = delete;

    /// The resource's file as it is now. `notFound` when there is none, or the identifier is refused.
    [[nodiscard]] std::expected<platform::OpenFile, ORXError> fileHandleForResource(std::string_view identifier) const;

    /// The files that are there. One look at each file's attributes.
    struct Usage {
        std::uint64_t files = 0;
        std::uint64_t bytes = 0;
    };
    [[nodiscard]] Usage usage();

    /// Of every resource that has one, by identifier.
    [[nodiscard]] std::map<std::string, std::string> resourceVersions();
    [[nodiscard]] std::optional<DownloadResource> resourceForKey(const std::string& identifier) const;

    /// Cancels every download, deletes every file and forgets where they came from; the next bag brings them anew.
    /// `deleted` comes on the queue, with the number of files.
    void deleteAllResources(std::move_only_function<void(std::size_t files)> deleted);

    [[nodiscard]] platform::SerialQueue& queue() { return _queue; }

    void willBeginDelayedRequest(const std::shared_ptr<platform::BackgroundTask>& task,
                                 const platform::URLRequest& request, Begin begin) override;
    void didFinishDownloading(const std::shared_ptr<platform::BackgroundTask>& task,
                              platform::DownloadedFile& file) override;
    void didComplete(const std::shared_ptr<platform::BackgroundTask>& task,
                     std::optional<platform::TransportError> error) override;

private:
    explicit DownloadManager(Assembly& assembly);

    void _start();
    void _loadSavedList() ORX_REQUIRES(_queue);
    void _saveResources() ORX_REQUIRES(_queue);

    void _bagChanged(const ORXBagChangeNotification& notification);
    void _startOver(const std::shared_ptr<const ORXBag>& bag) ORX_REQUIRES(_queue);
    void _downloadBagResources(const ORXBag& bag) ORX_REQUIRES(_queue);
    [[nodiscard]] bool _mayDownload(const std::string& identifier, const ORXBag& bag) const;
    void _addResource(const std::string& identifier, const std::optional<std::string>& url) ORX_REQUIRES(_queue);
    /// Why the resource is to be downloaded from there, as the server is told; none: it is not.
    [[nodiscard]] std::optional<std::string_view> _reason(const DownloadResource& resource, std::string_view url) const;
    bool _deleteFile(const std::string& identifier) ORX_REQUIRES(_queue);  ///< whether there was one

    struct Download {
        std::string_view identifier;
        std::string_view url;
        std::string_view reason;
    };
    void _downloadResource(const Download& download) ORX_REQUIRES(_queue);
    [[nodiscard]] std::optional<platform::URLRequest> _createDownloadRequest(const Download& download) const
        ORX_REQUIRES(_queue);
    void _install(const platform::BackgroundTask& task, platform::DownloadedFile& file) ORX_REQUIRES(_queue);
    void _didSucceed(const platform::BackgroundTask& task) ORX_REQUIRES(_queue);
    void _report(const std::string& reason);

    // Constant after construction.
    Assembly& _assembly;

    // Synchronised by themselves.
    std::atomic<bool> _hasStarted = false;  ///< the saved list was read, or will be before what is queued now
    mutable platform::SerialQueue _queue;

    // On the queue.
    std::map<std::string, DownloadResource, std::less<>> _resources ORX_GUARDED_BY(_queue);
    std::uint64_t _bagChanges ORX_GUARDED_BY(_queue) = 0;
};

}  // namespace orvex
