#pragma once

#include <memory>
#include <optional>

#include "platform/background_session.h"
#include "platform/linux/transfer_store.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

class StoredBackgroundSession;

/// What others see of a task: the session's queue writes it here, and any thread reads it. The task itself decides
/// nothing.
///
/// Threading: callable from any thread; a leaf lock.
class StoredBackgroundTask final : public BackgroundTask, public std::enable_shared_from_this<StoredBackgroundTask> {
public:
    /// `file` is empty for a download, and for a task that an earlier process stored, which begins as waiting.
    StoredBackgroundTask(std::weak_ptr<StoredBackgroundSession> session, const StoredTransfer& stored, std::string file,
                         BackgroundTaskState state);

    [[nodiscard]] std::uint64_t identifier() const override { return _identifier; }
    [[nodiscard]] TransferDirection direction() const override { return _direction; }
    [[nodiscard]] BackgroundTaskState state() const override;
    [[nodiscard]] const URLRequest& originalRequest() const override { return _request; }
    [[nodiscard]] URLRequest currentRequest() const override;
    [[nodiscard]] std::optional<URLResponse> response() const override;
    [[nodiscard]] std::uint64_t numberOfFeedbacks() const override;
    void setNumberOfFeedbacks(std::uint64_t count) override;
    void setEarliestBeginDate(WallTime date) override;
    [[nodiscard]] Result<void> resume() override;
    void cancel() override;

    // For the session.
    [[nodiscard]] const std::string& file() const { return _file; }
    [[nodiscard]] std::optional<WallTime> earliestBegin() const;
    /// Changes the state and writes the log line.
    void moveTo(BackgroundTaskState state);
    void setCurrentRequest(URLRequest request);
    void setResponse(URLResponse response);

private:
    // Constant after construction.
    const std::weak_ptr<StoredBackgroundSession> _session;
    const std::uint64_t _identifier;
    const TransferDirection _direction;
    const URLRequest _request;
    const std::string _file;

    // Guarded by the mutex.
    mutable Mutex _mutex;
    BackgroundTaskState _state ORX_GUARDED_BY(_mutex);
    URLRequest _current ORX_GUARDED_BY(_mutex);
    std::optional<URLResponse> _response ORX_GUARDED_BY(_mutex);
    std::optional<WallTime> _earliestBegin ORX_GUARDED_BY(_mutex);
    std::uint64_t _numberOfFeedbacks ORX_GUARDED_BY(_mutex);
};

}  // namespace orvex::platform
