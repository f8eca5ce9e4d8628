#include "feedback/orvex_flusher_xpc.h"

#include <algorithm>

#include "core/feedback_dictionary.h"
#include "core/feedback_records.pb.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/orvex_logging.h"
#include "feedback/client_session_manager_protocol.h"
#include "feedback/orvex_feedback_flusher.h"
#include "platform/user_defaults.h"

namespace orvex {
namespace {

const platform::Logger& flusherLog() { return OrvexLogForCategory(OrvexLoggingCategory::flusher); }

platform::BusInterface flusherInterface() {
    return {
        .name = std::string(kORXFlusherInterface),
        .methods = {{"InitiateConnectionWithIntent", "t", {"intent"}, "", {}}},
        .signals = {{"FlushedData", "aay", {"buffers"}, "", {}},
                    {"ReceivedFeedbackDescription", "s", {"description"}, "", {}},
                    {"WorkDone", "", {}, "", {}}},
    };
}

}  // namespace

std::shared_ptr<OrvexFlusherXPC> OrvexFlusherXPC::create(Assembly& assembly, ClientConnections getClientConnections) {
    return std::shared_ptr<OrvexFlusherXPC>(new OrvexFlusherXPC(assembly, std::move(getClientConnections)));
}

OrvexFlusherXPC::OrvexFlusherXPC(Assembly& assembly, ClientConnections getClientConnections)
    : _assembly(assembly),
      _getClientConnections(std::move(getClientConnections)),
      _queue(assembly.dispatcher(), "com.kelvar.orvexd.flusherXPCQueue") {}

OrvexFlusherXPC::~OrvexFlusherXPC() {
    _assembly.bus().removeObject(endpoint());
    _queue.close();
    flusherLog().debug("stopped listening for ORXFlusherListener connections");
}

platform::Result<void> OrvexFlusherXPC::exportObject(platform::BusCallHandler calls) {
    auto exported = _assembly.bus().exportObject(endpoint(), {flusherInterface()}, std::move(calls));
    if (exported) flusherLog().debug("started accepting connections :{}", endpoint());
    return exported;
}

void OrvexFlusherXPC::receive(platform::BusCall call) {
    _queue.async([this, self = shared_from_this(), call = std::move(call)]() mutable {
        _queue.assertCurrent();
        _initiateConnectionWithIntent(call.sender.uniqueName, *call.arguments[0].as<std::uint64_t>());
        call.reply.answer({});
    });
}

void OrvexFlusherXPC::_initiateConnectionWithIntent(const std::string& remote, std::uint64_t intent) {
    if (std::ranges::find(_remotes, remote) == _remotes.end()) {
        _remotes.push_back(remote);
        _assembly.bus().watchPeer(remote, [weak = weak_from_this(), remote] {
            const auto self = weak.lock();
            if (!self) return;
            self->_queue.async([self, remote] {
                self->_queue.assertCurrent();
                flusherLog().debug("listener invalidated");
                self->_removeDelegate(remote);
            });
        });
    }
    switch (static_cast<FlusherIntent>(intent)) {
        case FlusherIntent::listenToUploads:
            return _setSendingStreamListener(remote);
        case FlusherIntent::listenToFeedback:
            return _setReceivingStreamListener(remote);
        case FlusherIntent::stopFlushing:
            return _stopFlushing(remote);
        case FlusherIntent::dump:
            return _dump(remote);
    }
    flusherLog().debug("Unsupported command yet: {}", intent);
}

void OrvexFlusherXPC::_setSendingStreamListener(const std::string& remote) {
    _sendingStreamListener = remote;
    _sendingListens = true;
    flusherLog().debug("new listener for flusher client sessions, delegate: {}", remote);
}

void OrvexFlusherXPC::_setReceivingStreamListener(const std::string& remote) {
    _receivingStreamListener = remote;
    _receivingListens = true;
    flusherLog().debug("new listener for client feedbacks, delegate: {}", remote);
}

void OrvexFlusherXPC::_stopFlushing(const std::string& remote) {
    flusherLog().debug("flushing stopped; dump command will start flushing again");
    if (const auto stored = _assembly.userDefaults().setObject(setting::feedbackFlushDisabled, true); !stored) {
        flusherLog().error("cannot store that flushing is stopped: {}", stored.error().text);
    }
    _workDone(remote);
}

void OrvexFlusherXPC::_dump(const std::string& remote) {
    if (_sendingStreamListener.empty()) {
        flusherLog().debug("no listener for sending stream at dump time, setting current remote as listener");
        _setSendingStreamListener(remote);
    } else {
        flusherLog().debug("new listener for flusher client sessions, delegate: {}", _sendingStreamListener);
    }
    if (!_getClientConnections) return _flushNothing(remote);
    // Let go by the last connection that is done, or right here.
    const std::shared_ptr<void> dump(nullptr, [self = shared_from_this(), remote](void*) {
        self->_queue.async([self, remote] {
            self->_queue.assertCurrent();
            flusherLog().debug("dump command complete, calling -workDone");
            self->_workDone(remote);
        });
    });
    for (auto& connection : _getClientConnections()) {
        _flush(std::move(connection), dump);
        if (_assembly.sharedSession()) break;  // one flush covers all clients
    }
}

void OrvexFlusherXPC::_flushNothing(const std::string& remote) {
    flusherLog().debug("Can't get client connections. Flushed nothing.");
    _letFlush();
    _workDone(remote);
}

void OrvexFlusherXPC::_flush(DumpedConnection connection, std::shared_ptr<void> dump) {
    auto flushed = [self = shared_from_this(), agent = connection.userAgent, dump = std::move(dump)]() mutable {
        flusherLog().debug("session flushed because of dump command {}", agent);
        // Elsewhere: the callback of a session's flush must not wait for storage.
        self->_queue.async([self, dump = std::move(dump)]() mutable {
            const auto flusher = OrvexFeedbackFlusher::create(self->_assembly);
            flusher->forceFlushWithCompletion([self, dump = std::move(dump)] { self->_letFlush(); });
        });
    };
    const auto& shared = _assembly.clientSessionManager();
    if (_assembly.sharedSession() && shared) {
        shared->flushSession(std::move(flushed));
    } else {
        connection.flushSession(std::move(flushed));
    }
}

void OrvexFlusherXPC::_letFlush() const {
    if (const auto removed = _assembly.userDefaults().removeObject(setting::feedbackFlushDisabled); !removed) {
        flusherLog().error("cannot store that flushing goes on: {}", removed.error().text);
    }
}

void OrvexFlusherXPC::_removeDelegate(const std::string& remote) {
    std::erase(_remotes, remote);
    if (_receivingStreamListener == remote) {
        _receivingStreamListener.clear();
        _receivingListens = false;
        flusherLog().debug("Removed receiving stream listener");
    }
    if (_sendingStreamListener == remote) {
        _sendingStreamListener.clear();
        _sendingListens = false;
        flusherLog().debug("Removed sending stream listener");
    }
    flusherLog().debug("Removed remote listener");
}

void OrvexFlusherXPC::sendDataToReceivingStreamListener(std::shared_ptr<const CXOrvexFeedback> record) {
    _queue.async([this, self = shared_from_this(), record = std::move(record)] {
        _queue.assertCurrent();
        if (_receivingStreamListener.empty()) return;
        auto text = description(*record, _assembly.counters());
        if (text) _signal(_receivingStreamListener, "ReceivedFeedbackDescription", {*std::move(text)});
    });
}

void OrvexFlusherXPC::sendDataToSendingStreamListener(std::string bytes) {
    _queue.async([this, self = shared_from_this(), bytes = std::move(bytes)]() mutable {
        _queue.assertCurrent();
        if (_sendingStreamListener.empty()) return;
        platform::BusArray buffers{.elementSignature = "ay", .items = {}};
        buffers.items.emplace_back(platform::BusBytes::of(std::move(bytes)));
        _signal(_sendingStreamListener, "FlushedData", {std::move(buffers)});
    });
}

void OrvexFlusherXPC::_workDone(const std::string& remote) const {
    if (std::ranges::find(_remotes, remote) != _remotes.end()) _signal(remote, "WorkDone", {});
}

void OrvexFlusherXPC::_signal(const std::string& remote, std::string name, platform::BusArguments arguments) const {
    _assembly.bus().sendSignal(remote, endpoint(), std::string(kORXFlusherInterface), std::move(name),
                               std::move(arguments));
}

}  // namespace orvex
