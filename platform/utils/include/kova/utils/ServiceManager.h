#pragma once

namespace kova::utils {

// Notifications to the service manager by the protocol of sd_notify(3): datagrams to the socket in
// NOTIFY_SOCKET. Without that variable, as under runit, nothing is sent. No call blocks on a
// manager that does not read.

/// Sends READY=1. A failure is logged, and notifyAlive() retries. Removes the variables from the
/// environment, so that child processes do not inherit them. Before this call, the other functions
/// send nothing.
void notifyReady();

/// Sends WATCHDOG=1 if the manager expects it (WATCHDOG_USEC, WATCHDOG_PID) and half of its
/// interval has passed since the last one. Call it frequently. Waits for child programs call it,
/// too, so only the caller's own work between calls must take less than the other half.
void notifyAlive();

/// sleepMs() for long waits; calls notifyAlive() meanwhile.
void sleepAliveMs(int milliseconds);

}  // namespace kova::utils
