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
#include <string>
#include <string_view>

#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Parsing.h"
#include "kova/utils/UniqueFd.h"

namespace kova::utils {
namespace {

constexpr char kLogIdentity[] = "kova_utils";
constexpr char kLogUnit[] = "ServiceManager";

constexpr int kStepMs = 250;

/// The settings that notifyReady() found in the environment.
struct Manager {
  std::string socket;            // "": no service manager
  std::uint64_t intervalMs = 0;  // half of the watchdog interval; 0: no watchdog
  std::uint64_t aliveMs = 0;     // time of the last WATCHDOG=1
  bool unready = false;          // READY=1 could not be sent yet
};

Manager& manager() {
  static Manager one;
  return one;
}

/// Reads a variable and removes it, so that child processes do not inherit it.
std::string take(const char* name) {
  const char* value = std::getenv(name);
  std::string text = value != nullptr ? value : "";
  unsetenv(name);
  return text;
}

void takeVariables() {
  const std::string socket = take("NOTIFY_SOCKET");
  const std::string watchdog = take("WATCHDOG_USEC");
  const std::string process = take("WATCHDOG_PID");
  if (socket.empty()) {
    return;
  }
  manager() = {socket};
  std::uint64_t watchdogUs = 0;
  pid_t watched = getpid();
  const bool isWatched = process.empty() || (parseNumber(process, watched) && watched == getpid());
  if (isWatched && parseNumber(watchdog, watchdogUs) && watchdogUs != 0) {
    manager().intervalMs = std::max<std::uint64_t>(watchdogUs / 2000, 1);
  }
}

bool notify(std::string_view message) {
  const std::string& path = manager().socket;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() > sizeof address.sun_path || (path.front() != '/' && path.front() != '@')) {
    errno = EINVAL;
    return false;
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  if (path.front() == '@') {
    address.sun_path[0] = '\0';  // the abstract namespace, see unix(7)
  }
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return socket && sendto(socket.get(), message.data(), message.size(), MSG_NOSIGNAL,
                          reinterpret_cast<const sockaddr*>(&address),
                          length) == static_cast<ssize_t>(message.size());
}

bool announceReady() {
  manager().unready = !notify("READY=1");
  return !manager().unready;
}

}  // namespace

void notifyReady() {
  takeVariables();
  if (!manager().socket.empty() && !announceReady()) {
    KOVA_LOG(LOG_WARNING, errno, "Unable to tell the service manager that the start is complete");
  }
}

// The next call retries whatever could not be sent.
void notifyAlive() {
  Manager& state = manager();
  if (state.socket.empty()) {
    return;
  }
  if (state.unready) {
    announceReady();
  }
  const std::uint64_t time = nowMs();
  if (state.intervalMs != 0 && time - state.aliveMs >= state.intervalMs && notify("WATCHDOG=1")) {
    state.aliveMs = time;
  }
}

void sleepAliveMs(int milliseconds) {
  for (int left = milliseconds; left > 0; left -= kStepMs) {
    notifyAlive();
    sleepMs(std::min(left, kStepMs));
  }
}

}  // namespace kova::utils
