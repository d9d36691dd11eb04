#pragma once

#include <string>

namespace kova::utils {

/// The folders that a time zone is read from and written to.
struct ZoneFolders {
  std::string zoneinfo = "/usr/share/zoneinfo";
  std::string etc = "/etc";
};

/// Sets `/localtime` and `/TZ` below `folders.etc`: both, or with the result false neither.
bool writeTimeZone(const std::string& zone, const ZoneFolders& folders);

/// The POSIX TZ rule that ends a TZif file of version 2 or later (RFC 8536, 3.3); "" when `tzif` is
/// something else, or a zone that no rule describes.
std::string posixRule(const std::string& tzif);

}  // namespace kova::utils
