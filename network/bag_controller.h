#pragma once

#include <boost/json/fwd.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/clock.h"

namespace orvex {

class Assembly;
class ORXBag;

/// The role of the one owner of the server's configuration, as its peers see it.
///
/// Threading: callable from any thread, but never from within a bag change notification nor from a block of the request
/// factory's context queue: the staleness test reads that context.
class BagController {
public:
    /// Of a bag, from its fetch on; a new one is fetched some minutes before the end.
    static constexpr std::chrono::hours lifetime{4};

    virtual ~BagController() = default;

    /// The bag in memory, stale or not; none before the first fetch. Starts a fetch when there is none or it is stale.
    [[nodiscard]] virtual std::shared_ptr<const ORXBag> currentBag() = 0;
    [[nodiscard]] virtual std::optional<std::string> warmURL() = 0;

    /// A server's answer announced a bag version: fetches when its number "bag" is newer than ours.
    virtual void forceFetchBag(const boost::json::object& hints) = 0;

    /// The bag in memory, without starting anything.
    [[nodiscard]] virtual std::shared_ptr<const ORXBag> inMemoryBag() const = 0;
};

/// The owner, with the bag that is on disk. The request factory is in the assembly by then.
std::shared_ptr<BagController> makeBagController(Assembly& assembly);

}  // namespace orvex
