#pragma once

#include <string>

namespace kova::utils {

/// The folders that time zones are read from and written to.
struct ZoneFolders {
  std::string zoneinfo = "/usr/share/zoneinfo";
  std::string etc = "/etc";
};

/// Sets `/localtime` and `/TZ` below `folders.etc`: both, or neither if it returns false.
bool writeTimeZone(const std::string& zone, const ZoneFolders& folders);

/// The POSIX TZ rule at the end of a TZif file of version 2 or later (RFC 8536, 3.3); "" if `tzif`
/// is not such a file or has no rule.
std::string posixRule(const std::string& tzif);

}  // namespace kova::utils
