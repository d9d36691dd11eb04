#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>

#include "ServiceInternal.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"
#include "kova/utils/File.h"
#include "kova/utils/Process.h"
#include "kova/utils/Strings.h"
#include "kova/utils/UniqueFd.h"

namespace kova::utils {
namespace {

constexpr const char* kLogIdentity = "kova_utils";
constexpr const char* kLogUnit = "Service";
// Log lines name the public functions, which log collectors rely on.
constexpr char kEnable[] = "EnableService";
constexpr char kDisable[] = "DisableService";

constexpr const char* kSv = "/usr/bin/sv";

// Without these services, no request could restart them, or nothing would be logged.
constexpr std::array kNeeded{"kova_bus", "kova_ctlserver", "syslogd"};

bool isInstalled(const std::string& name) {
  struct stat info {};
  if (isServiceName(name) && stat(("/etc/sv/" + name).c_str(), &info) == 0 &&
      S_ISDIR(info.st_mode)) {
    return true;
  }
  KOVA_LOG(LOG_ERR, 0, "There is no service \"%s\" in /etc/sv", name.c_str());
  return false;
}

bool isSameFolder(const std::string& one, const std::string& other) {
  struct stat first {};
  struct stat second {};
  return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

/// Whether an installed service is a protected one, by its name or through a link: sv(8) acts on
/// the folder that the link in /etc/service points to, whatever its name.
bool isNeeded(const std::string& name) {
  return std::any_of(kNeeded.begin(), kNeeded.end(), [&name](const std::string& needed) {
    const std::string definition = "/etc/sv/" + needed;
    return isSameFolder("/etc/sv/" + name, definition) ||
           isSameFolder("/etc/service/" + name, definition) ||
           isSameFolder("/etc/service/" + name, "/etc/service/" + needed);
  });
}

bool removeIfThere(const std::string& path) {
  return unlink(path.c_str()) == 0 || errno == ENOENT;
}

/// Whether a runsv(8) process accepts commands for this service.
bool isSupervised(const std::string& service) {
  return static_cast<bool>(
      UniqueFd(open((service + "/supervise/ok").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)));
}

bool awaitSupervision(const std::string& service, std::uint64_t deadlineMs) {
  while (!isSupervised(service)) {
    if (nowMs() >= deadlineMs) return false;
    sleepMs(kServicePollMs);
  }
  return true;
}

/// Runs sv(8), which waits until the command has taken effect.
bool runSv(const char* command, const std::string& service, std::uint64_t deadlineMs) {
  const std::uint64_t time = nowMs();
  const std::uint64_t leftMs = deadlineMs - std::min(time, deadlineMs);
  const std::string waitSeconds = std::to_string(std::clamp<std::uint64_t>(leftMs / 1000, 1, 7));
  const auto timeoutMs = static_cast<unsigned>(leftMs + 1000);
  std::string out;
  std::string err;
  if (sysExec(kSv, {"-w", waitSeconds, command, service}, "", out, err, timeoutMs, 0, 4) == 0) {
    return true;
  }
  trim(out);
  trim(err);
  KOVA_LOG(LOG_ERR, 0, "sv %s %s failed: %s%s", command, service.c_str(), out.c_str(), err.c_str());
  return false;
}

/// Whether the service keeps running, rather than exiting and being restarted over and over.
bool staysUp(const std::string& service) {
  const std::string pidFile = service + "/supervise/pid";
  std::string started;
  std::string later;
  if (!File::ReadStringAll(pidFile, started)) return false;
  sleepMs(kServiceSettleMs);
  return !started.empty() && File::ReadStringAll(pidFile, later) && later == started;
}

// Retries if the supervisor ends: runsvdir(8) scans every 5 s, so after a recent DisableService()
// it may end the old supervisor during this start. It then starts a new one for the link. The last
// second of the budget is left to sv(8).
bool startSupervised(const std::string& name, const std::string& service,
                     std::uint64_t deadlineMs) {
  while (awaitSupervision(service, deadlineMs - 1000)) {
    const bool started = runSv("start", service, deadlineMs);
    if (started && staysUp(service)) return true;
    if (!isSupervised(service) && nowMs() < deadlineMs) continue;
    if (started) {
      KOVA_LOG_IN(kEnable, LOG_ERR, 0, "%s ended as soon as it was started", name.c_str());
    }
    return false;
  }
  KOVA_LOG_IN(kEnable, LOG_ERR, 0, "No supervisor took up %s", name.c_str());
  return false;
}

}  // namespace

bool enableRunitService(const std::string& name) {
  const std::uint64_t deadlineMs = nowMs() + kServiceBudgetMs;
  const std::string definition = "/etc/sv/" + name;
  const std::string service = "/etc/service/" + name;
  if (!isInstalled(name)) return false;
  if (!removeIfThere(definition + "/down") ||
      (symlink(definition.c_str(), service.c_str()) != 0 && errno != EEXIST)) {
    KOVA_LOG_IN(kEnable, LOG_ERR, errno, "Cannot mark %s to be started", name.c_str());
    return false;
  }
  return startSupervised(name, service, deadlineMs);
}

bool disableRunitService(const std::string& name) {
  if (!isInstalled(name)) return false;
  if (isNeeded(name)) {
    KOVA_LOG_IN(kDisable, LOG_ERR, 0, "Refused to stop %s: the camera cannot be managed without",
                name.c_str());
    return false;
  }
  const std::string service = "/etc/service/" + name;
  if (isSupervised(service) && !runSv("stop", service, nowMs() + kServiceBudgetMs)) return false;
  if (!removeIfThere(service)) {
    KOVA_LOG_IN(kDisable, LOG_ERR, errno, "Cannot unmark %s", name.c_str());
    return false;
  }
  return true;
}

}  // namespace kova::utils
