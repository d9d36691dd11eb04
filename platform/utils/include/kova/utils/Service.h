#pragma once

#include <string>

namespace kova::utils {

/// Starts the service `name` and marks it to be started at boot.
///
/// Here: the runit service folder /etc/sv/NAME is linked into /etc/service and told to go up
/// (runsvdir(8), sv(8)). A name that is empty, begins with "." or holds "/" or NUL, and a service
/// that is not installed, fail.
/// @return true once the service runs, and still does half a second later; false when it does not
/// within 8 s
bool EnableService(const std::string& name);

/// Stops the service `name` and unmarks it; false under the same conditions, true once it is down.
bool DisableService(const std::string& name);

}  // namespace kova::utils
