#pragma once

#include <string>
#include <vector>

namespace kova::ctl {

/// The time zones of the local machine; the camera's own if kovactl runs on it.
inline constexpr const char* kZoneFolder = "/usr/share/zoneinfo";

/// The sorted names of the time zones of the local machine.
std::vector<std::string> installedZones();

/// Describes what is wrong with a time zone, according to those of the local machine; "" if nothing
/// is, or if the machine has no time zones.
std::string doubtAboutZone(const std::string& zone);

}  // namespace kova::ctl
