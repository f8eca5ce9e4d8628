#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus.h"
#include "platform/linux/sd_bus_handles.h"

namespace orvex::platform {

/// Who the other clients of the bus are, and when they go. On the bus thread only.
///
///     (none) ──identify, watch──▶ asking ──the driver's answer──▶ known ──NameOwnerChanged──▶ (none)
///                                 asking ──the driver: no such name──▶ (none)
///
/// A peer is asked about once. Its match on NameOwnerChanged is on its way before the question, so a peer that goes at
/// any moment is either missing from the answer or told of. Unique names are never used twice.
class SdBusPeers {
public:
    using Identified = std::move_only_function<void(const BusPeer&)>;

    /// `gone` is told of every peer that has been asked about and is gone, before its watchers are.
    SdBusPeers(sd_bus* bus, std::function<void(const std::string& uniqueName)> gone);
    ~SdBusPeers();
    SdBusPeers(const SdBusPeers&) = delete;
    SdBusPeers& operator=(const SdBusPeers&) = delete;

    /// The peer when the driver has told who it is, else null. Good until the next call of this class.
    [[nodiscard]] const BusPeer* known(std::string_view uniqueName) const;

    /// Calls `identified` when the driver has answered, in the order of the calls for one peer; at once when it is
    /// known. What the driver does not tell stays unknown.
    void identify(const std::string& uniqueName, Identified identified);

    /// Calls `vanished` once, when the peer is gone; soon when it is already.
    void watch(const std::string& uniqueName, std::move_only_function<void()> vanished);

private:
    struct Peer;
    Peer& _peer(const std::string& uniqueName);
    void _ask(Peer& peer);
    void _answered(Peer& peer, sd_bus_message* answer);
    void _gone(Peer& peer);

    sd_bus* const _bus;
    const std::function<void(const std::string&)> _onGone;
    std::map<std::string, std::unique_ptr<Peer>, std::less<>> _peers;
};

}  // namespace orvex::platform
