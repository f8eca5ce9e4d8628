#include "daemon/stored_data.h"

#include <fmt/format.h>

#include <boost/json/object.hpp>
#include <memory>

#include "core/constants.h"
#include "core/feedback_records.pb.h"
#include "core/json.h"
#include "daemon/assembly.h"
#include "daemon/client_state_manager.h"
#include "feedback/client_session.h"
#include "feedback/client_session_manager_protocol.h"
#include "feedback/file_container.h"
#include "feedback/persistent_storage.h"
#include "platform/background_session.h"
#include "platform/file_manager.h"
#include "platform/thread_annotations.h"
#include "query/engaged_completion_cache.h"
#include "resources/download_manager.h"

namespace orvex {
namespace {

/// The answer of an erasure, given when the last part of it lets go.
class Tally {
public:
    explicit Tally(StoredData::Erased erased) : _erased(std::move(erased)) {}
    ~Tally() { _erased(std::move(_removed)); }

    void add(const std::string& kind, std::uint64_t count) {
        const platform::MutexLock lock(_mutex);
        _removed[kind] += static_cast<std::uint32_t>(count);
    }

private:
    StoredData::Erased _erased;
    platform::Mutex _mutex;
    StoredData::Removed _removed ORX_GUARDED_BY(_mutex);
};

}  // namespace

bool StoredData::isKind(std::string_view what) {
    return what == "completions" || what == "feedback" || what == "resources" || what == "all";
}

void StoredData::erase(std::string_view what, Erased erased) {
    const auto tally = std::make_shared<Tally>(std::move(erased));
    const bool all = what == "all";
    if (all || what == "completions") {
        EngagedCompletionCache::sharedInstance(_assembly)->clearAllCompletions(
            [tally](const platform::Result<std::int64_t>& removed) {
                tally->add("completions", removed ? static_cast<std::uint64_t>(*removed) : 0);
            });
    }
    if (all || what == "resources") {
        if (const auto& downloads = _assembly.downloadManager()) {
            downloads->deleteAllResources([tally](std::size_t removed) { tally->add("resources", removed); });
        }
    }
    if (!all && what != "feedback") return;
    tally->add("feedback", _removeReports());
    _assembly.uploadURLSession().getAllTasks([tally](const platform::BackgroundTasks& tasks) {
        for (const auto& task : tasks) task->cancel();
        tally->add("feedback", tasks.size());
    });
    // Let go by the last manager whose open session has ended.
    const std::shared_ptr<void> flushed(nullptr,
                                        [this, tally](void*) { tally->add("feedback", _removeWaitingSessions()); });
    std::vector<std::shared_ptr<ClientSessionManagerProtocol>> managers;
    if (const auto& states = _assembly.clientStateManager()) managers = states->sessionManagers();
    managers.push_back(_assembly.clientSessionManager());
    for (const auto& manager : managers) {
        if (manager) manager->flushSession([flushed] {});
    }
}

std::uint32_t StoredData::_removeWaitingSessions() const {
    const auto& storage = _assembly.persistentStorage();
    if (!storage) return 0;
    const auto files = storage->getAvailableSessionHandles();
    for (const auto& file : files) storage->deleteSessionWithFileContainer(file);
    return static_cast<std::uint32_t>(files.size());
}

std::uint32_t StoredData::_removeReports() const {
    const auto caches = _assembly.fileManager().cachesDirectory();
    if (!caches) return 0;
    std::uint32_t removed = 0;
    for (const int type : customFeedbackTypes) {
        const std::string directory = fmt::format("CustomFeedback/{}", customFeedbackDirectoryName(type));
        const auto names = (*caches)->list(directory);
        if (!names) continue;
        for (const auto& name : *names) {
            if ((*caches)->remove(fmt::format("{}/{}", directory, name))) ++removed;
        }
    }
    return removed;
}

std::vector<std::string> StoredData::pendingFeedback() const {
    std::vector<std::string> texts;
    const auto& storage = _assembly.persistentStorage();
    if (!storage) return texts;
    for (const auto& file : storage->getAvailableSessionHandles()) {
        auto session = file->read();
        if (!session) continue;
        ClientSession read(_assembly, *std::move(session));
        texts.push_back(compactJSON(read.getFeedbacksToSend()));
    }
    return texts;
}

}  // namespace orvex
