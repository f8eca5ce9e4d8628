#include "platform/linux/background_session_factory.h"

#include <random>

#include "platform/file_manager.h"

namespace orvex::platform {

StoredBackgroundSessionFactory::StoredBackgroundSessionFactory(StoredBackgroundSession::Services services)
    : _services(std::move(services)) {}

SessionBackOff::Draw StoredBackgroundSessionFactory::randomDraw() {
    return [] {
        thread_local std::mt19937 engine{std::random_device()()};
        return std::uniform_real_distribution<double>(0, 1)(engine);
    };
}

std::shared_ptr<BackgroundSession> StoredBackgroundSessionFactory::makeSession(
    BackgroundSessionConfiguration configuration, std::weak_ptr<BackgroundSessionDelegate> delegate) {
    auto session = StoredBackgroundSession::create(_services, std::move(configuration), std::move(delegate));
    const MutexLock lock(_mutex);
    if (_startUpIsThrough) session->startUpIsThrough();
    _sessions.push_back(session);
    return session;
}

bool StoredBackgroundSessionFactory::hasStoredTasks(std::string_view identifier) {
    auto state = _services.files.stateDirectory();
    const std::string place = StoredBackgroundSession::place(identifier);
    if (!state || !(*state)->list(place)) return false;
    auto directory = (*state)->directory(place);
    return directory && TransferStore(*directory, _services.counters).holdsTasks();
}

void StoredBackgroundSessionFactory::startUpIsThrough() {
    const MutexLock lock(_mutex);
    _startUpIsThrough = true;
    for (const auto& weak : _sessions)
        if (const auto session = weak.lock()) session->startUpIsThrough();
}

}  // namespace orvex::platform
