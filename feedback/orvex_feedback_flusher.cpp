#include "feedback/orvex_feedback_flusher.h"

#include <boost/json/object.hpp>

#include "core/feedback_records.pb.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "feedback/client_session.h"
#include "feedback/file_container.h"
#include "feedback/flusher_listener.h"
#include "feedback/persistent_storage.h"
#include "feedback/upload_manager.h"
#include "network/bag_controller.h"
#include "platform/background_activity.h"
#include "platform/counters.h"
#include "platform/mapped_file.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

using ActivityState = platform::BackgroundActivity::State;

const platform::Logger& flusherLog() { return OrvexLogForCategory(OrvexLoggingCategory::flusher); }

bool toolListens(const Assembly& assembly) {
    const auto& listener = assembly.flusherListener();
    return listener && listener->hasSendingStreamListener();
}

}  // namespace

std::shared_ptr<OrvexFeedbackFlusher> OrvexFeedbackFlusher::create(Assembly& assembly) {
    return std::shared_ptr<OrvexFeedbackFlusher>(new OrvexFeedbackFlusher(assembly));
}

OrvexFeedbackFlusher::OrvexFeedbackFlusher(Assembly& assembly)
    : _assembly(assembly),
      _queueBuffer(assembly.dispatcher(), "com.kelvar.orvexd.orvexDataBufferQueue"),
      _flusherQueue(assembly.dispatcher(), "com.kelvar.orvexd.feedbackFlusherQueue", platform::Priority::background) {}

OrvexFeedbackFlusher::~OrvexFeedbackFlusher() {
    _flusherQueue.close();
    _queueBuffer.close();
}

// The buffer

void OrvexFeedbackFlusher::flush(Session session, std::move_only_function<void()> callback) {
    _queueBuffer.async(
        [this, self = shared_from_this(), session = std::move(session), callback = std::move(callback)]() mutable {
            _queueBuffer.assertCurrent();
            _sessionBuffer.push_back(std::move(session));
            if (callback) callback();
        });
}

void OrvexFeedbackFlusher::flushSyncFromArray(std::vector<Session> sessions) {
    _queueBuffer.async([this, self = shared_from_this(), sessions = std::move(sessions)]() mutable {
        _queueBuffer.assertCurrent();
        for (auto& session : sessions) _sessionBuffer.push_back(std::move(session));
    });
}

void OrvexFeedbackFlusher::flushToWireAsync(std::move_only_function<void(Uploads)> completion) {
    _queueBuffer.async([this, self = shared_from_this(), completion = std::move(completion)]() mutable {
        _queueBuffer.assertCurrent();
        auto uploads = _flushToWire(static_cast<bool>(completion), nullptr);
        _assembly.counters().add("com.kelvar.orvexd.clientconnection", std::ssize(uploads));
        if (completion) completion(std::move(uploads));
    });
}

void OrvexFeedbackFlusher::flushToWireSync(Uploads* uploads, std::shared_ptr<const void> held) {
    _queueBuffer.sync([&] {
        _queueBuffer.assertCurrent();
        for (auto& upload : _flushToWire(uploads != nullptr, held)) uploads->push_back(std::move(upload));
    });
}

OrvexFeedbackFlusher::Uploads OrvexFeedbackFlusher::_flushToWire(bool returningObjects,
                                                                 const std::shared_ptr<const void>& held) {
    flusherLog().debug("Sessions Flushed {}", _sessionBuffer.size());
    Uploads uploads;
    for (const auto& session : _sessionBuffer) {
        const auto& uploader = _assembly.uploadManager();
        const auto compressed = uploader ? uploader->uploadJSONFeedback(session->getFeedbacksToSend(),
                                                                        UploadManager::Endpoint::feedback, held)
                                         : std::nullopt;
        if (!compressed || !returningObjects) continue;
        if (const auto mapped = platform::mmapFileHandle(*compressed)) {
            uploads.emplace_back(mapped->bytes());
        } else {
            flusherLog().error("error mapping tmp file {}", mapped.error().text);
        }
    }
    _sessionBuffer.clear();
    return uploads;
}

std::size_t OrvexFeedbackFlusher::countOfDatabuffer() const {
    return _queueBuffer.sync([this] {
        _queueBuffer.assertCurrent();
        return _sessionBuffer.size();
    });
}

std::vector<OrvexFeedbackFlusher::Session> OrvexFeedbackFlusher::sessionBuffer() const {
    return _queueBuffer.sync([this] {
        _queueBuffer.assertCurrent();
        return _sessionBuffer;
    });
}

// Flushing what is on disk

void OrvexFeedbackFlusher::performPeriodicFlushActivity(std::shared_ptr<platform::BackgroundActivity> activity) {
    if (activity->state() != ActivityState::run) {
        flusherLog().fault("Bailing on periodic flush because XPC activity state != RUN");
        return;
    }
    if (!activity->setState(ActivityState::continuing)) {
        flusherLog().fault("Error transitioning XPC_ACTIVITY_STATE_CONTINUE");
    }
    forceFlushWithCompletion([activity = std::move(activity)] {
        flusherLog().debug("All periodic flush tasks completed.");
        if (!activity->setState(ActivityState::done)) {
            flusherLog().fault("Error transitioning XPC_ACTIVITY_STATE_DONE");
        }
    });
}

void OrvexFeedbackFlusher::forceFlushWithCompletion(std::move_only_function<void()> completion) {
    auto transaction = _assembly.transactions().begin("com.kelvar.orvexd.feedbackFlusherTx");
    _flusherQueue.async([this, self = shared_from_this(), completion = std::move(completion),
                         transaction = std::move(transaction)]() mutable {
        _flusherQueue.assertCurrent();
        _completion = std::move(completion);
        _transaction = std::move(transaction);
        if (const auto& storage = _assembly.persistentStorage()) {
            for (auto& file : storage->getAvailableSessionHandles()) _files.push_back(std::move(file));
        }
        if (_files.empty() || !_mayTakeFiles()) return _complete();
        _takeNextFile();
    });
}

bool OrvexFeedbackFlusher::_mayTakeFiles() const {
    if (_assembly.userDefaults().boolean(setting::feedbackDisabled)) return false;
    const auto& bags = _assembly.bagController();
    return _assembly.uploadManager() && ((bags && bags->inMemoryBag()) || toolListens(_assembly));
}

void OrvexFeedbackFlusher::_takeNextFile() {
    _assembly.uploadManager()->countPendingUploads([self = shared_from_this()](std::size_t count) {
        self->_flusherQueue.async([self, count] {
            self->_flusherQueue.assertCurrent();
            self->_takeFile(count);
        });
    });
}

void OrvexFeedbackFlusher::_takeFile(std::size_t pendingUploads) {
    if (_files.empty() || !_mayTakeFiles()) return _complete();
    if (pendingUploads >= UploadManager::maxPendingUploads) {
        flusherLog().log("{} uploads pending, {} session files wait for the next flush", pendingUploads, _files.size());
        return _complete();
    }
    const auto file = std::move(_files.front());
    _files.pop_front();
    _upload(file);
}

void OrvexFeedbackFlusher::_upload(const std::shared_ptr<FileContainer>& file) {
    const auto session = _readFeedbackFromDisk(file);
    if (!_assembly.persistentStorage()->deleteSessionWithFileContainer(file)) return _takeNextFile();
    if (!session) {
        _assembly.counters().add("com.kelvar.orvexd.sessions.dropped.unreadable");
        return _takeNextFile();
    }
    // The upload holds the file, and whoever lets go of it last takes the next one.
    const std::shared_ptr<const void> held(file.get(), [self = shared_from_this(), kept = file](const void*) mutable {
        kept.reset();
        self->_takeNextFile();
    });
    flushSyncFromArray({session});
    Uploads uploads;
    flushToWireSync(toolListens(_assembly) ? &uploads : nullptr, held);
    for (auto& upload : uploads) {
        if (const auto& listener = _assembly.flusherListener()) {
            listener->sendDataToSendingStreamListener(std::move(upload));
        }
    }
}

OrvexFeedbackFlusher::Session OrvexFeedbackFlusher::_readFeedbackFromDisk(
    const std::shared_ptr<FileContainer>& file) const {
    auto read = file->read();
    return read ? std::make_shared<ClientSession>(_assembly, *std::move(read)) : nullptr;
}

void OrvexFeedbackFlusher::_complete() {
    _files.clear();
    if (auto completion = std::exchange(_completion, nullptr)) completion();
    _transaction.end();
}

}  // namespace orvex
