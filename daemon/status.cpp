#include "daemon/status.h"

#include <algorithm>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "core/constants.h"
#include "core/counter_vocabulary.h"
#include "core/json.h"
#include "core/orx_bag.h"
#include "core/settings.h"
#include "daemon/assembly.h"
#include "daemon/client_state_manager.h"
#include "feedback/client_session_manager_protocol.h"
#include "feedback/persistent_storage.h"
#include "network/bag_controller.h"
#include "network/orx_network_request_factory.h"
#include "platform/background_activity.h"
#include "platform/background_session.h"
#include "platform/counters.h"
#include "platform/transactions.h"
#include "platform/user_defaults.h"
#include "query/engaged_store.h"
#include "resources/download_manager.h"
#include "resources/lookup.h"

namespace orvex {
namespace {

/// Settings that keep something back while they are on.
constexpr std::string_view switches[] = {setting::networkSearchDisabled, setting::feedbackDisabled,
                                         setting::locationDisabled, setting::disableLocalCompletions};

double expirationOf(const ORXBag& bag) {
    const auto* expiration = bag.rawBag()->if_contains("__expiration");
    return expiration != nullptr ? numberFromJSON(*expiration).value_or(0) : 0;
}

std::vector<platform::PendingTransfer> pendingIn(const platform::BackgroundSession* session) {
    return session != nullptr ? session->pendingTransfers() : std::vector<platform::PendingTransfer>();
}

platform::BusArray texts() { return {.elementSignature = "s", .items = {}}; }

}  // namespace

Status::Status(Assembly& assembly, Traffic traffic)
    : _assembly(assembly),
      _traffic(std::move(traffic)),
      _started(assembly.dispatcher().now()),
      _countersAtStart(assembly.counters().snapshot()) {}

platform::BusDictionary Status::dictionary() const {
    platform::BusDictionary status;
    _tellWork(status);
    _tellBag(status);
    _tellSessions(status);
    _tellTransfers(status);
    _tellCaches(status);
    _tellCounters(status);
    return status;
}

void Status::_tellWork(platform::BusDictionary& status) const {
    const std::chrono::duration<double> uptime = _assembly.dispatcher().now() - _started;
    auto transactions = texts();
    for (auto& name : _assembly.transactions().openNames()) transactions.items.emplace_back(std::move(name));
    platform::BusArray activities{.elementSignature = "a{sv}", .items = {}};
    for (const auto& activity : _assembly.activities().activities()) {
        platform::BusDictionary row;
        row.set("name", activity.name)
            .set("under_way", activity.isUnderWay)
            .set("due", activity.due ? platform::secondsSince1970(*activity.due) : 0.0);
        activities.items.emplace_back(std::move(row));
    }
    auto switchedOff = texts();
    for (const auto key : switches) {
        if (_assembly.userDefaults().boolean(key)) switchedOff.items.emplace_back(std::string(key));
    }
    if (!Lookup::lookupEnabled(_assembly))
        switchedOff.items.emplace_back(std::string(setting::lookupSuggestionsDisabled));
    const std::size_t calls = std::max<std::size_t>(_traffic.callsInFlight(), 1) - 1;
    status.set("version", kORXOrvexdNameVersion().substr(kORXOrvexdNameVersion().find('/') + 1))
        .set("uptime_seconds", uptime.count())
        .set("connections", static_cast<std::uint32_t>(_traffic.connections()))
        .set("calls_in_flight", static_cast<std::uint32_t>(calls))
        .set("transactions", std::move(transactions))
        .set("activities", std::move(activities))
        .set("switched_off", std::move(switchedOff));
}

void Status::_tellBag(platform::BusDictionary& status) const {
    const auto bag = _assembly.bagController() ? _assembly.bagController()->inMemoryBag() : nullptr;
    const double expires = bag ? expirationOf(*bag) : 0;
    const std::chrono::duration<double> lifetime = BagController::lifetime;
    const auto& factory = _assembly.requestFactory();
    status.set("bag_version", bag ? bag->version().value_or("") : std::string())
        .set("bag_fetched", expires != 0 ? expires - lifetime.count() : 0.0)
        .set("bag_expires", expires)
        .set("bag_enabled", bag && bag->isEnabled())
        .set("feedback_enabled", bag && bag->feedbackEnabled())
        .set("gazel_visible", factory && factory->gazelVisible())
        .set("hashtag_images_visible", factory && factory->hashtagImagesVisible());
}

void Status::_tellSessions(platform::BusDictionary& status) const {
    std::set<std::shared_ptr<ClientSessionManagerProtocol>> managers;
    if (const auto& states = _assembly.clientStateManager()) {
        for (auto& manager : states->sessionManagers()) managers.insert(std::move(manager));
    }
    const auto& shared = _assembly.clientSessionManager();
    if (shared) managers.insert(shared);
    std::uint32_t open = 0;
    std::uint64_t records = 0;
    for (const auto& manager : managers) {
        if (manager->currentState() != SessionState::noSession) ++open;
        records += manager->openRecords();
    }
    const auto state = shared ? shared->currentState() : SessionState::beforeSoftLimit;
    const auto& storage = _assembly.persistentStorage();
    const auto waiting = storage ? storage->waiting() : PersistentStorage::Waiting{};
    status.set("session_state", static_cast<std::uint32_t>(state))
        .set("sessions_open", open)
        .set("records_open", records)
        .set("sessions_waiting", static_cast<std::uint32_t>(waiting.files))
        .set("sessions_waiting_bytes", waiting.bytes);
}

void Status::_tellTransfers(platform::BusDictionary& status) const {
    auto transfers = pendingIn(_assembly.uploadURLSessionIfMade());
    const auto uploads = transfers.size();
    std::ranges::move(pendingIn(_assembly.downloadURLSessionIfMade()), std::back_inserter(transfers));
    std::uint64_t bytes = 0;
    const platform::PendingTransfer* next = transfers.empty() ? nullptr : &transfers.front();
    for (const auto& transfer : transfers) {
        bytes += transfer.bytes;
        const bool isSooner =
            transfer.nextAttempt && (!next->nextAttempt || *transfer.nextAttempt < *next->nextAttempt);
        if (isSooner) next = &transfer;
    }
    const bool hasMoment = next != nullptr && next->nextAttempt;
    status.set("uploads_pending", static_cast<std::uint32_t>(uploads))
        .set("downloads_pending", static_cast<std::uint32_t>(transfers.size() - uploads))
        .set("transfers_bytes", bytes)
        .set("next_transfer", hasMoment ? platform::secondsSince1970(*next->nextAttempt) : 0.0)
        .set("next_transfer_why", next != nullptr ? next->why : std::string());
}

void Status::_tellCaches(platform::BusDictionary& status) const {
    const auto& states = _assembly.clientStateManager();
    const auto queries = states ? states->queryCacheUsage() : ClientStateManager::CacheUsage{};
    const auto& downloads = _assembly.downloadManager();
    const auto resources = downloads ? downloads->usage() : DownloadManager::Usage{};
    const auto counted = [this](std::string_view name) {
        return static_cast<std::uint64_t>(std::max<std::int64_t>(_assembly.counters().value(name), 0));
    };
    status.set("query_cache_entries", queries.entries)
        .set("query_cache_cost", queries.cost)
        .set("engaged_completions", counted(EngagedStore::entriesCounter))
        .set("engaged_completions_bytes", counted(EngagedStore::sizeCounter))
        .set("resources", static_cast<std::uint32_t>(resources.files))
        .set("resources_bytes", resources.bytes);
}

void Status::_tellCounters(platform::BusDictionary& status) const {
    platform::BusDictionary changed{.valueSignature = "x", .entries = {}};
    for (const auto& [name, value] : _assembly.counters().snapshot()) {
        const auto before = _countersAtStart.find(name);
        const std::int64_t atStart = before != _countersAtStart.end() ? before->second : 0;
        if (value == atStart) continue;
        const auto known = knownCounter(name);
        const bool isLevel = known && known->meaning->kind == CounterMeaning::Kind::level;
        changed.set(name, isLevel ? value : value - atStart);
    }
    status.set("counters_changed", std::move(changed));
}

}  // namespace orvex
