#pragma once

#include <string>

namespace kova::utils {

/// Sets the system's time zone to an Olson zone ("Europe/Paris", "GMT") in /etc/localtime, in
/// /etc/TZ and for this process. False, without any change, if the zone does not exist below
/// /usr/share/zoneinfo.
bool setTimeZone(const std::string& zone);

}  // namespace kova::utils
