#pragma once

namespace kova::ctlserver {

/// The handler of SIGTERM. Sets a flag and does nothing else.
void noteStopSignal(int signal);

/// Whether this process has received SIGTERM.
bool stopSignalled();

}  // namespace kova::ctlserver
