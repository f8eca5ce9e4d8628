#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/bus.h"

namespace orvex {

class Assembly;
class ClientState;

struct ReportedPayload {
    std::string_view bytes;     ///< a CXFeedbackPayload; need not outlive the call
    std::uint64_t queryId = 0;  ///< 0: the record itself may name one
};

/// Takes what a client reports: reads it, draws its consequences and adds the record to the client's session.
///
/// The consequences: a search view that appears warms the connection to the server; an engagement is counted, kept as
/// an engaged completion, and told to the server with the figures that it asks for.
/// `reply` is answered when the record is on disk or was dropped by a rule, with an error when it could not be read or
/// written, or when there is no state or no session manager to take it. What goes wrong before there is a session is
/// recorded in a session of its own.
///
/// Threading: on the connection's queue. The answer goes out from here or from the queue on which the record's road
/// ends; nothing waits for it. `state` may be null.
void reportFeedbackPayload(Assembly& assembly, const std::shared_ptr<ClientState>& state,
                           const ReportedPayload& payload, platform::BusReply reply);

}  // namespace orvex
