#include "feedback/client_session.h"

#include <boost/json/object.hpp>

#include "core/client_name.h"
#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "core/network_search_record.h"
#include "core/orx_error.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "feedback/daemon_record.h"
#include "feedback/file_container.h"
#include "feedback/first_use.h"
#include "feedback/orvexd_user_agent.h"
#include "feedback/own_session_limit.h"
#include "feedback/persistent_storage.h"
#include "feedback/session_dictionary.h"
#include "platform/counters.h"
#include "platform/user_defaults.h"
#include "resources/download_manager.h"

namespace orvex {
namespace {

const platform::Logger& sessionLog() { return OrvexLogForCategory(OrvexLoggingCategory::session); }

}  // namespace

ClientSession::ClientSession(Assembly& assembly, std::unique_ptr<CXOrvexFeedback> first, RecordReceipt receipt,
                             SessionEndReason previousSessionEndReason)
    : _assembly(assembly),
      _backingStore(std::make_unique<CXClientSession>()),
      _sessionQueue(assembly.dispatcher(), "com.kelvar.orvexd.clientSessionQueue") {
    _begin(first.get(), previousSessionEndReason);
    _takeResourceVersions();
    const auto& storage = assembly.persistentStorage();
    _storageHandle = storage ? storage->createFileContainerForWriting() : nullptr;
    if (_storageHandle) _storageHandle->writeSessionHeader(*_backingStore);
    if (first) addFeedback(std::move(first), std::move(receipt));
}

ClientSession::ClientSession(Assembly& assembly, CXClientSession session)
    : _assembly(assembly),
      _backingStore(std::make_unique<CXClientSession>(std::move(session))),
      _sessionQueue(assembly.dispatcher(), "com.kelvar.orvexd.clientSessionQueue"),
      _complete(true) {}

ClientSession::~ClientSession() = default;

void ClientSession::_begin(const CXOrvexFeedback* first, SessionEndReason previousSessionEndReason) {
    auto& session = *_backingStore;
    session.set_session_start(platform::secondsSince1970(_assembly.dispatcher().wallNow()));
    session.set_version(orvexdUserAgent(_assembly.device()));
    session.set_previous_session_end_reason(static_cast<std::int32_t>(previousSessionEndReason));
    if (first == nullptr) return;
    if (first->has_user_agent()) session.set_agent(first->user_agent());
    if (!first->user_guid().empty()) session.set_user_guid_string(first->user_guid());
    if (FeedbackType(feedbackType(*first)) == FeedbackType::suggestionEngagement) session.set_remove_timestamps(true);
    if (const auto client = extractClientNameFromString(session.agent())) {
        _assembly.counters().add(createAggdKey(*client, "sessions"));
    }
    determineFirstUse(_assembly, session);
}

void ClientSession::_takeResourceVersions() {
    const auto& downloads = _assembly.downloadManager();
    if (!downloads) return;
    for (auto& [identifier, version] : downloads->resourceVersions()) {
        (*_backingStore->mutable_resource_versions())[identifier] = version;
    }
}

std::shared_ptr<ClientSession> ClientSession::createFeedbackSessionFromError(const ORXError& error,
                                                                             Assembly& assembly) {
    return createFeedbackSessionFromError(errorFeedback(error), assembly);
}

std::shared_ptr<ClientSession> ClientSession::createFeedbackSessionFromError(const CXErrorFeedback& error,
                                                                             Assembly& assembly) {
    if (assembly.userDefaults().boolean(setting::feedbackDisabled)) return nullptr;
    const auto& limit = assembly.ownSessionLimit();
    if (limit && !limit->admit(OwnSessionLimit::Kind::error)) return nullptr;
    return std::make_shared<ClientSession>(assembly, daemonErrorRecord(assembly, error), RecordReceipt());
}

const std::string& ClientSession::agent() const { return _backingStore->agent(); }

const std::string& ClientSession::userGuid() const { return _backingStore->user_guid_string(); }

void ClientSession::addFeedback(std::unique_ptr<CXOrvexFeedback> record, RecordReceipt receipt) {
    if (!record) {
        sessionLog().debug("attempted to add a nil feedback");
        return;
    }
    _write(*record, std::move(receipt));
    if (_backingStore->has_user_guid_string() && record->user_guid() != userGuid()) _tellDifferentGUID(*record);
}

void ClientSession::_write(const CXOrvexFeedback& record, RecordReceipt receipt) {
    if (_storageHandle) return _storageHandle->writeFeedback(record, std::move(receipt));
    _assembly.counters().add("com.kelvar.orvexd.feedbackdropped.nofile");
    receipt.fail(ORXError(ORXErrorCode::internal, "the session has no file"));
}

// Straight to the file: as a record that is added it would be found to have a different GUID itself.
void ClientSession::_tellDifferentGUID(const CXOrvexFeedback& record) {
    const ORXError error(ORXErrorCode::internal, "different guid in session");
    _write(*daemonRecord(_assembly, errorFeedback(error), {.userAgent = record.user_agent()}), RecordReceipt());
}

std::vector<CXOrvexFeedback> ClientSession::getSessionFeedbacks() {
    return _sessionQueue.sync([this] {
        _sessionQueue.assertCurrent();
        const auto inFile = _storageHandle ? _storageHandle->readOpen() : std::nullopt;
        const auto& feedbacks = inFile ? inFile->feedbacks() : _backingStore->feedbacks();
        SessionRecords records(feedbacks.begin(), feedbacks.end());
        sortByTime(records);
        return records;
    });
}

void ClientSession::sessionComplete() {
    _sessionQueue.sync([this] {
        _sessionQueue.assertCurrent();
        if (std::exchange(_complete, true)) return;
        const auto& storage = _assembly.persistentStorage();
        if (_storageHandle && storage) return storage->closeSessionWithFileContainer(_storageHandle);
        sessionLog().fault("Storage Handle nil major error");
    });
}

boost::json::object ClientSession::getFeedbacksToSend() {
    return feedbacksToSend(_assembly, *_backingStore, getSessionFeedbacks());
}

}  // namespace orvex
