#pragma once

namespace orvex {

class Assembly;

/// Listens to the system-wide notify names that the daemon follows: when the suggestions were cleared elsewhere, all
/// engaged completions are cleared here. The assembly outlives the bus's deliveries.
void listenToNotifyNames(Assembly& assembly);

}  // namespace orvex
