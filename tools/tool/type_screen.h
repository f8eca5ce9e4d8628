#pragma once

#include "tools/tool/commands.h"

namespace orvex::tool {

/// Search as you type on the terminal that standard input and output are, until the user leaves. Every keystroke sends
/// a query at once and nobody waits for it: one thread waits for the terminal, for signals and for the bus. A daemon
/// that goes away is told of and, once it is back, asked again.
///
/// The terminal is as it was on every way out: the user's, an exception's, a closed terminal's, and SIGTERM's or
/// SIGHUP's, which end the process once that is done.
ExitStatus searchAsYouType(const Options& options);

}  // namespace orvex::tool
