#include "platform/linux/sd_bus_peers.h"

#include <systemd/sd-bus.h>

#include <system_error>

#include "platform/linux/sd_bus_message.h"
#include "platform/log.h"

namespace orvex::platform {
namespace {

constexpr auto* driver = "org.freedesktop.DBus";
constexpr auto* driverPath = "/org/freedesktop/DBus";

/// As the driver makes them: nothing that could break out of a match rule.
bool isUniqueName(std::string_view name) {
    return name.starts_with(':') && name.size() > 1 && name.size() < 256 &&
           name.find_first_not_of("0123456789.:-_ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz") == name.npos;
}

void readCredentials(sd_bus_message* answer, BusPeer& peer) {
    const auto read = readArguments(answer);
    const auto* credentials = read && !read->arguments.empty() ? read->arguments[0].as<BusDictionary>() : nullptr;
    if (!credentials) return;
    if (const auto* value = credentials->find("UnixUserID")) {
        if (const auto* uid = value->as<std::uint32_t>()) peer.userIdentifier = *uid;
    }
    if (const auto* value = credentials->find("ProcessID")) {
        if (const auto* pid = value->as<std::uint32_t>()) peer.processIdentifier = static_cast<std::int32_t>(*pid);
    }
}

}  // namespace

struct SdBusPeers::Peer {
    enum class State {
        asking,  ///< the driver's answer is awaited, and calls wait for it
        known,   ///< who it is, or that the driver does not tell
    };

    SdBusPeers* table;
    BusPeer who;
    State state = State::asking;
    bool gone = false;  ///< told of while asking; the answer still comes
    std::vector<Identified> waiting;
    std::vector<std::move_only_function<void()>> watchers;
    SdHandle<sd_bus_slot> match;
    SdHandle<sd_bus_slot> question;
};

SdBusPeers::SdBusPeers(sd_bus* bus, std::function<void(const std::string&)> gone)
    : _bus(bus),
      _onGone(std::move(gone)) {}

SdBusPeers::~SdBusPeers() = default;

const BusPeer* SdBusPeers::known(std::string_view uniqueName) const {
    const auto found = _peers.find(uniqueName);
    return found != _peers.end() && found->second->state == Peer::State::known ? &found->second->who : nullptr;
}

void SdBusPeers::identify(const std::string& uniqueName, Identified identified) {
    if (!isUniqueName(uniqueName)) return identified(BusPeer{uniqueName, 0, {}});
    Peer& peer = _peer(uniqueName);
    if (peer.state == Peer::State::known) return identified(peer.who);
    peer.waiting.push_back(std::move(identified));
}

void SdBusPeers::watch(const std::string& uniqueName, std::move_only_function<void()> vanished) {
    if (!isUniqueName(uniqueName)) return vanished();
    _peer(uniqueName).watchers.push_back(std::move(vanished));
}

SdBusPeers::Peer& SdBusPeers::_peer(const std::string& uniqueName) {
    auto& slot = _peers[uniqueName];
    if (!slot) {
        slot = std::make_unique<Peer>();
        slot->table = this;
        slot->who.uniqueName = uniqueName;
        _ask(*slot);
    }
    return *slot;
}

void SdBusPeers::_ask(Peer& peer) {
    const auto ownerChanged = [](sd_bus_message* message, void* userdata, sd_bus_error*) {
        auto& changed = *static_cast<Peer*>(userdata);
        // Another client can send a signal of that name to us alone.
        const char* sender = sd_bus_message_get_sender(message);
        if (!sender || std::string_view(sender) != driver) return 0;
        const char* newOwner = nullptr;
        if (sd_bus_message_read(message, "sss", nullptr, nullptr, &newOwner) < 0 || *newOwner != '\0') return 0;
        changed.gone = true;
        if (changed.state == Peer::State::known) changed.table->_gone(changed);
        return 0;
    };
    const auto matchInstalled = [](sd_bus_message* message, void* userdata, sd_bus_error*) {
        if (const auto* error = sd_bus_message_get_error(message)) {
            defaultLogger().error("the end of {} will not be heard of: {}",
                                  static_cast<Peer*>(userdata)->who.uniqueName, error->name);
        }
        return 0;
    };
    const auto answered = [](sd_bus_message* message, void* userdata, sd_bus_error*) {
        auto& asked = *static_cast<Peer*>(userdata);
        asked.table->_answered(asked, message);
        return 0;
    };

    const auto& name = peer.who.uniqueName;
    const std::string rule = std::string("type='signal',sender='") + driver + "',path='" + driverPath +
                             "',interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + name + "'";
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_match_async(_bus, &slot, rule.c_str(), ownerChanged, matchInstalled, &peer);
    peer.match.reset(r < 0 ? nullptr : slot);
    slot = nullptr;
    if (r >= 0) {
        r = sd_bus_call_method_async(_bus, &slot, driver, driverPath, "org.freedesktop.DBus",
                                     "GetConnectionCredentials", answered, &peer, "s", name.c_str());
    }
    peer.question.reset(r < 0 ? nullptr : slot);
    if (r >= 0) return;
    // The bus is gone: so nothing will come of this peer any more, and nobody waits for it.
    defaultLogger().error("the bus cannot be asked who {} is: {}", name, std::generic_category().message(-r));
    peer.state = Peer::State::known;
}

void SdBusPeers::_answered(Peer& peer, sd_bus_message* answer) {
    if (const auto* error = sd_bus_message_get_error(answer)) {
        defaultLogger().debug("the bus does not tell who {} is: {}", peer.who.uniqueName, error->name);
        peer.gone = peer.gone || std::string_view(error->name) == "org.freedesktop.DBus.Error.NameHasNoOwner";
    } else {
        readCredentials(answer, peer.who);
    }
    peer.state = Peer::State::known;
    for (auto waiting = std::exchange(peer.waiting, {}); auto& identified : waiting) identified(peer.who);
    if (peer.gone) _gone(peer);
}

void SdBusPeers::_gone(Peer& peer) {
    const auto removed = _peers.extract(peer.who.uniqueName);
    _onGone(removed.key());
    for (auto& vanished : removed.mapped()->watchers) vanished();
}

}  // namespace orvex::platform
