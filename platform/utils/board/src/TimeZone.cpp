#include "kova/utils/TimeZone.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "TimeZoneInternal.h"
#include "kova/logger/Logger.h"
#include "kova/utils/File.h"
#include "kova/utils/Handle.h"
#include "kova/utils/Strings.h"

namespace kova::utils {
namespace {

constexpr const char* kLogIdentity = "kova_utils";
constexpr const char* kLogUnit = "TimeZone";

/// Whether `zone` has the form of a zone name, which excludes NUL, line breaks, absolute paths and
/// "..".
bool isZoneName(const std::string& zone) {
  constexpr std::string_view kAllowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_+-/";
  return !zone.empty() && zone.front() != '/' && zone.back() != '/' &&
         zone.find_first_not_of(kAllowed) == std::string::npos;
}

std::string canonical(const std::string& path) {
  const Handle<char, std::free> resolved(realpath(path.c_str(), nullptr));
  return resolved ? resolved.get() : "";
}

/// Whether `path` is an absolute link out of `zoneinfo`, such as "localtime" to /etc/localtime.
/// Setting that zone would create a link loop.
bool followsTheSystem(const std::string& path, const std::string& zoneinfo) {
  std::error_code isNoLink;
  const std::string target = std::filesystem::read_symlink(path, isNoLink);
  return target.starts_with('/') && !target.starts_with(zoneinfo + "/");
}

/// The POSIX rule of an installed zone; "" if there is no such zone.
std::string ruleOf(const std::string& zone, const std::string& zoneinfo) {
  const std::string path = zoneinfo + "/" + zone;
  const std::string file = canonical(path);
  if (file.empty() && (zone == "GMT" || zone == "UTC")) return zone + "0";
  const std::string folder = canonical(zoneinfo);
  std::string content;
  if (!file.starts_with(folder + "/") || followsTheSystem(path, zoneinfo) ||
      !File::ReadStringAll(file, content)) {
    return "";
  }
  return posixRule(content);
}

/// Atomically replaces a symbolic link, and restores the old one on destruction unless told to keep
/// the new.
class LinkReplacement {
 public:
  explicit LinkReplacement(const std::string& path)
      : path_(path),
        next_(path + format(".new.%d", getpid())),
        previous_(path + format(".old.%d", getpid())) {}

  ~LinkReplacement() {
    if (replaced_ && !kept_) takeBack();
    unlink(next_.c_str());
    unlink(previous_.c_str());
  }
  LinkReplacement(const LinkReplacement&) = delete;
  LinkReplacement& operator=(const LinkReplacement&) = delete;

  bool replace(const std::string& target) {
    unlink(next_.c_str());
    unlink(previous_.c_str());
    if (symlink(target.c_str(), next_.c_str()) != 0) return false;
    if (link(path_.c_str(), previous_.c_str()) != 0 && errno != ENOENT) return false;
    replaced_ = rename(next_.c_str(), path_.c_str()) == 0;
    return replaced_;
  }

  void keep() { kept_ = true; }

 private:
  void takeBack() {  // kept: 15
    const bool done = rename(previous_.c_str(), path_.c_str()) == 0 ||
                      (errno == ENOENT && unlink(path_.c_str()) == 0);
    if (!done) KOVA_LOG_IN("TakeBack", LOG_ERR, errno, "Cannot restore %s", path_.c_str());
  }

  std::string path_;
  std::string next_;
  std::string previous_;
  bool replaced_ = false;
  bool kept_ = false;
};

}  // namespace

std::string posixRule(const std::string& tzif) {
  constexpr std::size_t kVersionAt = 4;
  if (!tzif.starts_with("TZif") || tzif.size() <= kVersionAt || tzif[kVersionAt] < '2' ||
      tzif.back() != '\n') {
    return "";
  }
  const std::string lines(tzif, 0, tzif.size() - 1);
  const std::size_t before = lines.rfind('\n');
  if (before == std::string::npos) return "";
  std::string rule = lines.substr(before + 1);
  const auto isGraphic = [](char c) { return c > ' ' && c <= '~'; };
  return std::all_of(rule.begin(), rule.end(), isGraphic) ? rule : "";
}

bool writeTimeZone(const std::string& zone, const ZoneFolders& folders) {
  const std::string rule = isZoneName(zone) ? ruleOf(zone, folders.zoneinfo) : "";
  if (rule.empty()) {
    KOVA_LOG(LOG_ERR, 0, "No time zone \"%s\"", zone.c_str());
    return false;
  }
  // Closing the rule's file commits. The link comes before that, since it can be restored.
  File tz;
  LinkReplacement localtime(folders.etc + "/localtime");
  if (!tz.Initialize(folders.etc + "/TZ", FILE_OPEN_MODE_TRUNCATE, FILE_REPLACE_ATOMICALLY) ||
      !tz.WriteString(rule + "\n") || !localtime.replace(folders.zoneinfo + "/" + zone) ||
      !tz.Close()) {
    KOVA_LOG(LOG_ERR, errno, "Cannot set the time zone %s", zone.c_str());
    return false;
  }
  localtime.keep();
  return true;
}

bool setTimeZone(const std::string& zone) {
  if (!writeTimeZone(zone, ZoneFolders{})) return false;
  unsetenv("TZ");  // it would override /etc/localtime
  tzset();
  return true;
}

}  // namespace kova::utils
