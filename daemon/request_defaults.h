#pragma once

namespace orvex {

class Assembly;
struct ORXRequest;

/// Puts what the system knows into the entries that a client left empty: how one types (the keyboard's layout, else the
/// language), and the main screen's scale. For a request that is sent and for one that is explained. Takes no queue.
void fillInFromSystem(ORXRequest& request, const Assembly& assembly);

}  // namespace orvex
