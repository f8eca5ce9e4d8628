#include "daemon/diagnostics.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <chrono>

#include "core/constants.h"
#include "core/json.h"
#include "core/orx_bag.h"
#include "daemon/assembly.h"
#include "daemon/call_limit.h"
#include "daemon/client_state_manager.h"
#include "daemon/explained_request.h"
#include "feedback/client_session_manager_protocol.h"
#include "feedback/persistent_storage.h"
#include "network/bag_controller.h"
#include "network/orx_network_request_factory.h"
#include "platform/background_session.h"
#include "platform/counters.h"
#include "platform/text.h"
#include "platform/transactions.h"

namespace orvex {

namespace {

std::uint32_t countPending(const platform::BackgroundSession* session) {
    return session ? static_cast<std::uint32_t>(session->pendingTransfers().size()) : 0;
}

platform::BusDictionary toBus(const platform::PendingTransfer& transfer) {
    platform::BusDictionary row;
    row.set("identifier", transfer.identifier)
        .set("direction", transfer.direction == platform::TransferDirection::upload ? "upload" : "download")
        .set("url", transfer.url)
        .set("bytes", transfer.bytes)
        .set("created", platform::secondsSince1970(transfer.created))
        .set("attempts", transfer.attempts)
        .set("next_attempt", transfer.nextAttempt ? platform::secondsSince1970(*transfer.nextAttempt) : 0.0)
        .set("why", transfer.why);
    return row;
}

}  // namespace

Diagnostics::Diagnostics(Assembly& assembly, std::function<std::size_t()> countConnections)
    : _assembly(assembly),
      _countConnections(std::move(countConnections)),
      _started(assembly.dispatcher().now()),
      _storedData(assembly),
      _queue(assembly.dispatcher(), "com.kelvar.orvexd.diagnostics") {}

Diagnostics::~Diagnostics() { _queue.close(); }

void Diagnostics::receive(platform::BusCall call) {
    _queue.async([this, call = std::move(call)]() mutable {
        _queue.assertCurrent();
        if (call.member == "Counters") {
            call.reply.answer({_counters()});
        } else if (call.member == "Status") {
            call.reply.answer({_status()});
        } else if (call.member == "Transfers") {
            call.reply.answer({_transfers()});
        } else if (call.member == "Erase") {
            _erase(*call.arguments[0].as<std::string>(), std::move(call.reply));
        } else if (call.member == "Explain") {
            _explain(call);
        } else if (call.member == "PendingFeedback") {
            call.reply.answer({_pendingFeedback()});
        }
    });
}

void Diagnostics::_erase(const std::string& what, platform::BusReply reply) {
    if (!StoredData::isKind(what)) {
        reply.fail(platform::bus_error::invalidArgs, "what: nothing called " + platform::escaped(what, 64));
        return;
    }
    _storedData.erase(what, [reply = std::move(reply)](const StoredData::Removed& removed) mutable {
        platform::BusDictionary counts{.valueSignature = "u", .entries = {}};
        for (const auto& [kind, count] : removed) counts.set(kind, count);
        reply.answer({std::move(counts)});
    });
}

void Diagnostics::_explain(platform::BusCall& call) {
    if (CallLimit::refusesSize(call.size, call.reply)) return;
    auto rows = explainedRequest(_assembly, *call.arguments[0].as<std::string>(),
                                 *call.arguments[1].as<platform::BusDictionary>());
    if (rows) {
        call.reply.answer({*std::move(rows)});
    } else {
        call.reply.fail(rows.error().errorName, rows.error().message);
    }
}

platform::BusArray Diagnostics::_pendingFeedback() const {
    platform::BusArray sessions{.elementSignature = "s", .items = {}};
    for (auto& session : _storedData.pendingFeedback()) sessions.items.emplace_back(std::move(session));
    return sessions;
}

platform::BusDictionary Diagnostics::_counters() const {
    platform::BusDictionary counters{.valueSignature = "x", .entries = {}};
    for (const auto& [name, value] : _assembly.counters().snapshot()) counters.set(name, value);
    return counters;
}

platform::BusArray Diagnostics::_transfers() const {
    platform::BusArray rows{.elementSignature = "a{sv}", .items = {}};
    for (const auto* session : {_assembly.uploadURLSessionIfMade(), _assembly.downloadURLSessionIfMade()}) {
        if (session == nullptr) continue;
        for (const auto& transfer : session->pendingTransfers()) rows.items.emplace_back(toBus(transfer));
    }
    return rows;
}

platform::BusDictionary Diagnostics::_status() const {
    const auto bag = _assembly.bagController() ? _assembly.bagController()->inMemoryBag() : nullptr;
    std::string bagVersion;
    double bagExpires = 0;
    if (bag) {
        bagVersion = bag->version().value_or("");
        if (const auto* expiration = bag->rawBag()->if_contains("__expiration")) {
            bagExpires = numberFromJSON(*expiration).value_or(0);
        }
    }
    platform::BusArray transactions{.elementSignature = "s", .items = {}};
    for (auto& name : _assembly.transactions().openNames()) transactions.items.emplace_back(std::move(name));

    const auto& states = _assembly.clientStateManager();
    const auto caches = states ? states->queryCacheUsage() : ClientStateManager::CacheUsage{};
    const std::chrono::duration<double> uptime = _assembly.dispatcher().now() - _started;
    const auto& factory = _assembly.requestFactory();
    const auto& sessions = _assembly.clientSessionManager();
    const auto& storage = _assembly.persistentStorage();
    const auto sessionState = sessions ? sessions->currentState() : SessionState::beforeSoftLimit;
    const auto sessionsWaiting = storage ? storage->getAvailableSessionHandles().size() : 0;
    platform::BusDictionary status;
    status.set("version", kORXOrvexdNameVersion().substr(kORXOrvexdNameVersion().find('/') + 1))
        .set("uptime_seconds", uptime.count())
        .set("connections", static_cast<std::uint32_t>(_countConnections()))
        .set("transactions", std::move(transactions))
        .set("bag_version", std::move(bagVersion))
        .set("bag_expires", bagExpires)
        .set("session_state", static_cast<std::uint32_t>(sessionState))
        .set("sessions_waiting", static_cast<std::uint32_t>(sessionsWaiting))
        .set("uploads_pending", countPending(_assembly.uploadURLSessionIfMade()))
        .set("downloads_pending", countPending(_assembly.downloadURLSessionIfMade()))
        .set("query_cache_entries", caches.entries)
        .set("query_cache_cost", caches.cost)
        .set("gazel_visible", factory && factory->gazelVisible())
        .set("hashtag_images_visible", factory && factory->hashtagImagesVisible());
    return status;
}

}  // namespace orvex
