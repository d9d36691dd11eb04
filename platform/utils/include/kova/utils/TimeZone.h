#pragma once

#include <string>

namespace kova::utils {

/// Makes an Olson zone ("Europe/Paris", "GMT") the system's: /etc/localtime, /etc/TZ and this
/// process's own clock. False for a zone that does not exist below /usr/share/zoneinfo or whose
/// name leads out of it; nothing is then changed.
bool setTimeZone(const std::string& zone);

}  // namespace kova::utils
