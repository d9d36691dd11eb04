#include "PumpGuard.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "kova/logger/Logger.h"

// Some C libraries lack the name that timer_create(2) documents for this member.
#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid  // NOLINT(readability-identifier-naming)
#endif

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "PumpGuard";

constexpr long kNanosecondsInMs = 1'000'000;
// Cuts repeat until the pass ends, because libcurl may open more sockets.
constexpr itimerspec kAgain{{}, {0, 50 * kNanosecondsInMs}};
constexpr timespec kAtOnce{0, 1};

timespec milliseconds(long count) {
  return {count / 1000, count % 1000 * kNanosecondsInMs};
}

bool isZero(const timespec& time) {
  return time.tv_sec == 0 && time.tv_nsec == 0;
}

sigset_t ownSignal() {
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, pumpSignal());
  return own;
}

/// Blocks the signal in this thread while it exists.
class SignalBlock {
 public:
  SignalBlock() {
    const sigset_t own = ownSignal();
    pthread_sigmask(SIG_BLOCK, &own, &previous_);
  }
  ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

 private:
  sigset_t previous_{};
};

}  // namespace

int pumpSignal() {
  return SIGRTMIN;
}

PumpGuard::~PumpGuard() {
  if (timer_) {
    timer_delete(*timer_);
  }
}

bool PumpGuard::Init() {
  struct sigaction action {};
  action.sa_sigaction = onSignal;  // kept: 119
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_notify_thread_id = gettid();
  event.sigev_signo = pumpSignal();
  event.sigev_value.sival_ptr = this;
  timer_t timer{};
  if (sigaction(pumpSignal(), &action, nullptr) != 0 ||
      (!timer_ && timer_create(CLOCK_THREAD_CPUTIME_ID, &event, &timer) != 0)) {
    KOVA_LOG(LOG_ERR, errno, "Failed to guard the transfers");
    return false;
  }
  timer_ = timer_.value_or(timer);
  const sigset_t own = ownSignal();  // may be inherited blocked from the parent process
  pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
  return true;
}

void PumpGuard::beginTurn(std::size_t transfers) {
  left_ = milliseconds(kTurnMs + kTransferMs * static_cast<long>(transfers));
}

void PumpGuard::watch(int fd, Mark cut) {
  const SignalBlock block;
  sockets_.push_back({fd, std::move(cut)});
}

void PumpGuard::forget(int fd) {
  const SignalBlock block;
  std::erase_if(sockets_, [fd](const Socket& socket) { return socket.fd == fd; });
}

void PumpGuard::onSignal(int /*number*/, siginfo_t* info, void* /*context*/) {
  if (info->si_code != SI_TIMER) {
    return;  // sent by a process, not by the timer
  }
  const int error = errno;
  static_cast<PumpGuard*>(info->si_value.sival_ptr)->cut();
  errno = error;
}

// Runs in the signal handler: only async-signal-safe calls, and sockets_ changes only while the
// signal is blocked. Connecting to AF_UNSPEC dissolves a connection together with its unread data;
// after the fallback, shutdown(2), a few megabytes could still be read. Each socket is marked, so
// that its transfer fails even if libcurl takes the cut for the end of the body.
void PumpGuard::cut() {
  if (armed_ == 0) {
    return;  // delivered while the timer was being disarmed
  }
  const sockaddr nobody{AF_UNSPEC, {}};
  fired_ = 1;
  for (const Socket& socket : sockets_) {
    *socket.cut = 1;
    if (connect(socket.fd, &nobody, sizeof nobody) != 0) {
      shutdown(socket.fd, SHUT_RDWR);
    }
  }
  timer_settime(*timer_, 0, &kAgain, nullptr);
}

// A turn may have several passes: each resumes with the budget that the previous one left. A pass
// between turns, as of a cancel on request, gets what the last turn left: after a cut that is
// nothing, but then the sockets are already dead.
//
// The timer has no interval: for a timer that expired between two ticks, unnoticed, Linux would
// report the rest of the interval.
void PumpGuard::arm() {
  fired_ = 0;
  armed_ = 1;
  const itimerspec limit{{}, isZero(left_) ? kAtOnce : left_};
  timer_settime(*timer_, 0, &limit, nullptr);
}

void PumpGuard::disarm() {
  const itimerspec none{};
  itimerspec left{};
  armed_ = 0;  // first, so that a signal delivered from here on is a no-op
  timer_settime(*timer_, 0, &none, &left);
  left_ = fired_ != 0 ? timespec{} : left.it_value;
}

PumpGuard::Pass::Pass(PumpGuard& guard, bool armed)
    : guard_(armed && guard.timer_ ? &guard : nullptr) {
  if (guard_ != nullptr) {
    guard_->arm();
  }
}

PumpGuard::Pass::~Pass() {
  if (guard_ != nullptr) {
    guard_->disarm();
  }
}

}  // namespace kova::ctlserver
