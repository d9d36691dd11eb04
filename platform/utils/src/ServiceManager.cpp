#include "kova/utils/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Parsing.h"
#include "kova/utils/UniqueFd.h"

namespace kova::utils {
namespace {

constexpr char kLogIdentity[] = "kova_utils";
constexpr char kLogUnit[] = "ServiceManager";

std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

bool tell(std::string_view state) {
  const std::string_view path = variable("NOTIFY_SOCKET");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path || (path.front() != '/' && path.front() != '@')) {
    errno = EINVAL;
    return false;
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  if (path.front() == '@') {
    address.sun_path[0] = '\0';  // the abstract namespace, see unix(7)
  }
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return socket && sendto(socket.Get(), state.data(), state.size(), MSG_NOSIGNAL,
                          reinterpret_cast<const sockaddr*>(&address), length) >= 0;
}

/// Half of the time in which the manager wants to hear; 0 if it does not watch.
std::uint64_t aliveIntervalMs() {
  std::uint64_t watchdogUs = 0;
  if (variable("NOTIFY_SOCKET").empty() || !parseNumber(variable("WATCHDOG_USEC"), watchdogUs) ||
      watchdogUs == 0) {
    return 0;
  }
  return std::max<std::uint64_t>(watchdogUs / 2000, 1);
}

bool isWatched() {
  const std::string_view text = variable("WATCHDOG_PID");
  pid_t watched = 0;
  return text.empty() || (parseNumber(text, watched) && watched == getpid());
}

}  // namespace

void notifyReady() {
  if (!variable("NOTIFY_SOCKET").empty() && !tell("READY=1")) {
    KOVA_LOG(LOG_WARNING, errno, "Unable to tell the service manager that the start is complete");
  }
}

// What the manager did not take is tried again by the next call.
void notifyAlive() {
  static std::uint64_t toldMs = 0;
  const std::uint64_t intervalMs = aliveIntervalMs();
  const std::uint64_t time = nowMs();
  if (intervalMs != 0 && time - toldMs >= intervalMs && isWatched() && tell("WATCHDOG=1")) {
    toldMs = time;
  }
}

void sleepAliveMs(int milliseconds) {
  constexpr int kStepMs = 250;
  if (aliveIntervalMs() == 0) {
    sleepMs(milliseconds);
    return;
  }
  for (int left = milliseconds; left > 0; left -= kStepMs) {
    notifyAlive();
    sleepMs(std::min(left, kStepMs));
  }
}

}  // namespace kova::utils
