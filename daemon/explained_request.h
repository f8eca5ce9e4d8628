#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "core/orx_error.h"
#include "platform/bus_value.h"

namespace orvex {

class Assembly;

/// Why a request cannot be explained, as the bus tells it.
struct NotExplained {
    std::string_view errorName;
    std::string message;
};

/// The request that `kind` and `request`, as `Request` takes them, would be sent as: one row for each query item, in
/// its order, then for each header, with what the vocabulary of requests tells of it. Nothing is sent. What no entry of
/// the vocabulary made has the source "the endpoint" (its address in the bag) or "the client". Nobody is connected for
/// it, so the user agent is the daemon's own. Waits for the request context's queue; reads the bag that is in memory.
[[nodiscard]] std::expected<platform::BusArray, NotExplained> explainedRequest(Assembly& assembly,
                                                                               std::string_view kind,
                                                                               const platform::BusDictionary& request);

}  // namespace orvex
