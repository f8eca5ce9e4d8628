#pragma once

#include <chrono>

#include "tools/tool/commands.h"

namespace orvex::tool {

/// Shows the daemon's status again and again, until the user leaves or the bus goes away (`noDaemon`): on a terminal as
/// a screen that is redrawn, elsewhere, and with `--json`, one page or document after the other. It looks after every
/// interval, and at once when a daemon comes; one that is gone is told once.
///
/// It keeps nothing alive and starts nothing: where no daemon is, it waits for one to come.
ExitStatus watchStatus(const Options& options, std::chrono::milliseconds interval);

}  // namespace orvex::tool
