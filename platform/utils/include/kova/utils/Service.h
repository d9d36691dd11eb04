#pragma once

#include <string>

namespace kova::utils {

/// Starts the service `name` and enables it at boot.
///
/// Links the runit service folder /etc/sv/NAME into /etc/service and brings it up (runsvdir(8),
/// sv(8)). Fails for a name that is empty, begins with "." or contains "/" or NUL, and for a
/// service that is not installed.
/// @return true once the service runs and still runs half a second later; false if that takes more
/// than 8 s
bool EnableService(const std::string& name);

/// Stops the service `name` and disables it at boot. True once it is down; fails as EnableService()
/// does.
///
/// "kova_bus", "kova_ctlserver" and "syslogd" are refused, and so is a link to one of them: without
/// them the camera could be neither managed nor diagnosed.
bool DisableService(const std::string& name);

}  // namespace kova::utils
