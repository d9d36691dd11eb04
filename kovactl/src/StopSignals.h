#pragma once

#include "Exit.h"

/// Ctrl-C and its like end a command between two steps, so that every object is destroyed as ever
/// and the terminal is left as it was found.
namespace kova::ctl {

/// From now on SIGINT, SIGTERM and SIGHUP interrupt blocking calls and are remembered. A signal
/// that is ignored (nohup(1)) stays so.
void catchStopSignals();

/// Whether one of them has come.
bool stopRequested();

/// The exit status for the one that came: 130 for SIGINT, else 143.
Exit stopStatus();

}  // namespace kova::ctl
