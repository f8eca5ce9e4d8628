#include "daemon/diagnostics.h"

#include "daemon/assembly.h"
#include "daemon/call_limit.h"
#include "daemon/explained_request.h"
#include "platform/background_session.h"
#include "platform/counters.h"
#include "platform/text.h"

namespace orvex {

namespace {

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

Diagnostics::Diagnostics(Assembly& assembly, Status::Traffic traffic)
    : _assembly(assembly),
      _status(assembly, std::move(traffic)),
      _storedData(assembly),
      _queue(assembly.dispatcher(), "com.kelvar.orvexd.diagnostics") {}

Diagnostics::~Diagnostics() { _queue.close(); }

void Diagnostics::receive(platform::BusCall call) {
    _queue.async([this, call = std::move(call)]() mutable {
        _queue.assertCurrent();
        if (call.member == "Counters") {
            call.reply.answer({_counters()});
        } else if (call.member == "Status") {
            call.reply.answer({_status.dictionary()});
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

}  // namespace orvex
