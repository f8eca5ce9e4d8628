#pragma once

#include <memory>

namespace orvex {

class Assembly;
class OrvexService;

/// Puts the daemon together, in a fixed order: a manager may use, while it is made, only what was made before it.
///
///     tracing → registered defaults → custom-feedback directories → managers → activities → service
///
/// Called by `main` on the main thread, before any thread runs. Nothing that fails here stops the start: it is logged.
std::shared_ptr<OrvexService> assemble(Assembly& assembly);

/// What follows once the daemon can be reached: the bag is warmed and `ORXStartupNotification` is posted, both on the
/// pool, and stored transfers go on.
void beginService(Assembly& assembly);

}  // namespace orvex
