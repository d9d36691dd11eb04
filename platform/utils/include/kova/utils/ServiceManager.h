#pragma once

namespace kova::utils {

// What this process tells the service manager that started it, by the protocol of sd_notify(3): a
// datagram to the socket that NOTIFY_SOCKET names. Without that variable nothing is told, as under
// runit. None of these calls blocks for a manager that does not read.

/// Tells that the start is complete. What the manager does not take is logged and told again by
/// notifyAlive(). Takes the variables out of the environment, so that programs started later do not
/// inherit them; before it, the other functions tell nothing.
void notifyReady();

/// Tells that the process is alive, if the manager watches for that (WATCHDOG_USEC, WATCHDOG_PID)
/// and half of its time has passed since it was told last. Called all the time. Waits for programs
/// tell so, too; only the caller's own work in between must take less than the other half.
void notifyAlive();

/// sleepMs(), for a long wait: tells meanwhile that the process is alive.
void sleepAliveMs(int milliseconds);

}  // namespace kova::utils
