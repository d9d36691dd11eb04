#include "Supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <iterator>

#include "ChildProcesses.h"
#include "Descriptors.h"
#include "kova/utils/Clock.h"

namespace kova::utils {
namespace {

// Protocol of the socket pair: the supervisor sends a StartReport, later kTimeIsOver if the limit
// expires, and closes its end by exiting once no descendant is left. The owner shuts down its end,
// or exits, to have all of them killed.

struct StartReport {
  int error = ECHILD;
  pid_t pid = -1;
};

constexpr char kTimeIsOver = 'T';
// The supervisor's end of the socket, the only descriptor that it inherits.
constexpr int kSocket = 0;
constexpr int kLongestEndMs = 2'000;

bool sendReport(int socket, const StartReport& report) {
  return send(socket, &report, sizeof report, MSG_NOSIGNAL) == sizeof report;
}

// Nothing in the child processes allocates memory, since other threads of the owner may have held
// the heap's locks at the fork(2).

/// Blocks all signals and reads them from a descriptor: a signal that kills the owner must not kill
/// the supervisor first.
/// @return that descriptor; -1, with errno, on failure
int becomeSupervisor(int socket) {
  signal(SIGCHLD, SIG_DFL);
  sigset_t all{};
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, nullptr);
  dup3(socket, kSocket, O_CLOEXEC);
  closeDescriptorsFrom(kSocket + 1);
  prctl(PR_SET_NAME, "kova_supervisor");
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  return signalfd(-1, &all, SFD_NONBLOCK | SFD_CLOEXEC);
}

/// Waits until the time limit expires, the leash is released or a child exits.
/// @return whether the leash is still held and time is left
bool waitWithin(std::uint64_t deadline, int signals) {
  const std::uint64_t time = nowMs();
  if (time >= deadline) return false;
  pollfd polled[] = {{kSocket, POLLIN, 0}, {signals, POLLIN, 0}};
  constexpr std::uint64_t kLongestWaitMs = 60'000;
  poll(polled, std::size(polled),
       static_cast<int>(std::min<std::uint64_t>(deadline - time, kLongestWaitMs)));
  signalfd_siginfo arrived;
  // If more signals are pending, the next wait ends at once.
  [[maybe_unused]] const ssize_t got = read(signals, &arrived, sizeof arrived);
  return polled[0].revents == 0;
}

[[noreturn]] void supervise(Spawn& spawn, int socket, unsigned limitMs) {
  const int signals = becomeSupervisor(socket);
  const std::uint64_t deadline = nowMs() + limitMs;
  StartReport report;
  report.error = signals < 0 ? errno : spawn.start(&report.pid);
  if (!sendReport(kSocket, report)) {
    killChildren();
    _exit(1);
  }
  while (reapChildren()) {
    if (waitWithin(deadline, signals)) continue;
    const bool timeIsOver = nowMs() >= deadline;
    killChildren();
    if (timeIsOver) send(kSocket, &kTimeIsOver, 1, MSG_NOSIGNAL);
    break;
  }
  _exit(0);
}

/// Body of the process between the owner and the supervisor. Its exit reparents the supervisor to
/// init, so that the owner need not reap it.
[[noreturn]] void startAndEnd(Spawn& spawn, int socket, unsigned limitMs) {
  const pid_t supervisor = fork();
  if (supervisor == 0) supervise(spawn, socket, limitMs);
  if (supervisor < 0) sendReport(socket, {errno});
  _exit(0);
}

StartReport awaitReport(int socket) {
  StartReport report;
  ssize_t got = 0;
  do {
    got = recv(socket, &report, sizeof report, MSG_WAITALL);
  } while (got == -1 && errno == EINTR);
  return got == sizeof report ? report : StartReport{};
}

bool isReadable(int socket, int timeoutMs) {
  pollfd polled{socket, POLLIN, 0};
  return poll(&polled, 1, timeoutMs) > 0;
}

}  // namespace

int Leash::start(Spawn& spawn, unsigned limitMs, pid_t* pid) {
  int ends[2]{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return errno;
  UniqueFd own(ends[0]);
  UniqueFd other(ends[1]);
  const pid_t middle = fork();
  if (middle < 0) return errno;
  if (middle == 0) startAndEnd(spawn, other.get(), limitMs);
  other.reset();
  waitFor(middle, nullptr);
  const StartReport report = awaitReport(own.get());
  if (report.error != 0) return report.error;
  *pid = report.pid;
  socket_ = std::move(own);
  return 0;
}

bool Leash::holds() const {
  return socket_ && !isReadable(socket_.get(), 0);
}

void Leash::letGo() {
  if (!socket_) return;
  shutdown(socket_.get(), SHUT_WR);
  const std::uint64_t deadline = nowMs() + kLongestEndMs;
  for (std::uint64_t time = nowMs(); time < deadline; time = nowMs()) {
    if (!isReadable(socket_.get(), static_cast<int>(deadline - time))) continue;
    char note;
    if (recv(socket_.get(), &note, 1, 0) <= 0) break;
    expired_ = true;  // the only message after the report
  }
}

}  // namespace kova::utils
