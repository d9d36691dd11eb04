#pragma once

#include <string>

namespace kova::utils {

/// Starts the service `name` and enables it at boot.
///
/// Under systemd (sd_booted(3)) this is the unit NAME.service, started and enabled through the
/// system bus. Otherwise it is the runit service folder /etc/sv/NAME, linked into /etc/service and
/// brought up (runsvdir(8), sv(8)). Fails for a name that is empty, begins with "." or contains "/"
/// or NUL, and for a service that is not installed. Refuses units that belong to systemd itself, or
/// shut down or repair the system: "systemd-*", "initrd-*", "debug-shell", "emergency" and
/// "rescue".
/// @return true once the service runs and is still running half a second later; false if that takes
/// more than 8 s
bool EnableService(const std::string& name);

/// Stops the service `name` and disables it at boot. True once it is down; fails under the same
/// conditions as EnableService().
///
/// Refuses services without which the camera cannot be managed or diagnosed, also through a link or
/// an alias: "kova_bus", "kova_ctlserver" and "syslogd" of runit; "kova-bus", "kova_ctlserver",
/// "dbus", "syslog", "syslogd" and "systemd-journald" of systemd, and the units that
/// EnableService() refuses.
bool DisableService(const std::string& name);

}  // namespace kova::utils
