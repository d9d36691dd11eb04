#pragma once

namespace kova::ctlserver {

/// SIGTERM handler. Async-signal-safe: only sets a flag.
void noteStopSignal(int signal);

/// Whether this process has received SIGTERM.
bool stopSignalled();

}  // namespace kova::ctlserver
