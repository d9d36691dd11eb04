#pragma once

#include <string>

namespace kova::utils {

/// Starts the service `name` and enables it at boot.
///
/// Where systemd runs (sd_booted(3)) that is the unit NAME.service, started and enabled through the
/// system bus. Elsewhere it is the runit service folder /etc/sv/NAME, linked into /etc/service and
/// brought up (runsvdir(8), sv(8)). Fails for a name that is empty, begins with "." or contains "/"
/// or NUL, and for a service that is not installed. The units by which systemd itself works, ends
/// or is repaired are refused: "systemd-*", "initrd-*", "debug-shell", "emergency" and "rescue".
/// @return true once the service runs and still runs half a second later; false if that takes more
/// than 8 s
bool EnableService(const std::string& name);

/// Stops the service `name` and disables it at boot. True once it is down; fails as EnableService()
/// does.
///
/// What the camera is managed and diagnosed by is refused, and so is a link to it or another name
/// of it: "kova_bus", "kova_ctlserver" and "syslogd" of runit; "kova-bus", "kova_ctlserver",
/// "dbus", "syslog", "syslogd" and "systemd-journald" of systemd, and the units that
/// EnableService() refuses.
bool DisableService(const std::string& name);

}  // namespace kova::utils
