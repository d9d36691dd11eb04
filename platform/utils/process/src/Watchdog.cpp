#include "Watchdog.h"

#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <csignal>
#include <limits>

#include "Spawn.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"

namespace kova::utils {
namespace {

constexpr char kLogIdentity[] = "kova_utils";
constexpr char kLogUnit[] = "Process";

constexpr auto kNever = std::numeric_limits<std::uint64_t>::max();

/// Whether a child has exited, without reaping it. A child that cannot be waited for counts as
/// exited.
bool hasEnded(pid_t child) {
  siginfo_t end{};
  const int result = waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT);
  return result < 0 || end.si_pid == child;
}

}  // namespace

Watchdog::Watchdog(pid_t group, const std::string& program, unsigned timeoutMs, unsigned graceMs)
    : group_(group), program_(program), graceMs_(graceMs), next_(nowMs() + timeoutMs) {}

void Watchdog::check() {  // kept: 15
  if (nowMs() < next_) return;
  if (!expired_) KOVA_LOG_IN("Check", LOG_WARNING, 0, "%s exceeded its time", program_.c_str());
  const bool gently = !expired_ && graceMs_ != 0;
  signalAll(gently ? SIGTERM : SIGKILL);
  next_ = gently ? nowMs() + graceMs_ : kNever;
  expired_ = true;
}

// Signals the process, too: it may have left its group.
void Watchdog::signalAll(int signal) const {
  kill(-group_, signal);
  kill(group_, signal);
}

int Watchdog::pollTimeout(int step) const {
  const std::uint64_t leftMs = next_ - std::min(nowMs(), next_);
  return static_cast<int>(std::min<std::uint64_t>(leftMs, step));
}

pid_t Watchdog::end(int* status) const {
  if (!hasEnded(group_)) return 0;
  // Before reaping: until then no other group can reuse the id.
  if (expired_) signalAll(SIGKILL);
  return waitFor(group_, status);
}

}  // namespace kova::utils
