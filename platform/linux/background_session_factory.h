#pragma once

#include <memory>
#include <vector>

#include "platform/background_session.h"
#include "platform/linux/stored_background_session.h"
#include "platform/thread_annotations.h"

namespace orvex::platform {

/// Makes sessions that keep their tasks below "transfers" in the state directory.
///
/// Threading: callable from any thread.
class StoredBackgroundSessionFactory final : public BackgroundSessionFactory {
public:
    explicit StoredBackgroundSessionFactory(StoredBackgroundSession::Services services);

    /// For `Services::draw`.
    [[nodiscard]] static SessionBackOff::Draw randomDraw();

    std::shared_ptr<BackgroundSession> makeSession(BackgroundSessionConfiguration configuration,
                                                   std::weak_ptr<BackgroundSessionDelegate> delegate) override;
    bool hasStoredTasks(std::string_view identifier) override;
    void startUpIsThrough() override;

private:
    // Constant after construction.
    const StoredBackgroundSession::Services _services;

    // Guarded by the mutex.
    Mutex _mutex;
    std::vector<std::weak_ptr<StoredBackgroundSession>> _sessions ORX_GUARDED_BY(_mutex);
    bool _startUpIsThrough ORX_GUARDED_BY(_mutex) = false;
};

}  // namespace orvex::platform
