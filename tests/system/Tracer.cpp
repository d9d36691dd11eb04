#include "Tracer.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace kova::system_test {
namespace {

using CallInfo = __ptrace_syscall_info;

// Calls that do not count. All others do, so that no unforeseen call is missed.
constexpr std::array kHarmless = {
    // The idle loop, and waiting.
    SYS_recvmsg, SYS_ppoll, SYS_clock_nanosleep, SYS_clock_gettime, SYS_pread64,
    SYS_restart_syscall, SYS_wait4, SYS_waitid, SYS_gettid, SYS_getpid, SYS_timer_settime,
    // Reading.
    SYS_read, SYS_lseek, SYS_fstat, SYS_newfstatat, SYS_readlinkat, SYS_getdents64, SYS_prlimit64,
    SYS_getrandom, SYS_ioctl, SYS_close,
// Legacy calls, absent on newer architectures.
#ifdef SYS_readlink
    SYS_readlink,
#endif
#ifdef SYS_poll
    SYS_poll,
#endif
    // The process' own memory and signals.
    SYS_brk, SYS_mmap, SYS_munmap, SYS_mprotect, SYS_mremap, SYS_madvise, SYS_rt_sigprocmask};

void check(long result, const char* what) {
  if (result == -1) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

bool changesSomething(const CallInfo& info) {
  const auto number = static_cast<long>(info.entry.nr);
  if (number == SYS_openat) {
    return (info.entry.args[2] & (O_ACCMODE | O_CREAT)) != O_RDONLY;
  }
  return std::find(kHarmless.begin(), kHarmless.end(), number) == kHarmless.end();
}

bool isAtCountedCall(pid_t pid) {
  CallInfo info{};
  check(ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info), "no system call to be seen");
  return info.op == PTRACE_SYSCALL_INFO_ENTRY && changesSomething(info);
}

/// The next stop of a traced process.
struct Stop {
  explicit Stop(pid_t pid) {
    int status = 0;
    check(waitpid(pid, &status, __WALL), "the process is not traced");
    ended = !WIFSTOPPED(status);
    const int number = ended ? 0 : WSTOPSIG(status);
    atCall = number == (SIGTRAP | 0x80);
    const bool own = atCall || (status >> 16) != 0;
    signal = own ? 0 : number;
  }

  bool ended = false;   // the process has exited
  bool atCall = false;  // it enters or leaves a system call
  int signal = 0;       // otherwise the signal being delivered
};

void kill(pid_t pid) {
  check(::kill(pid, SIGKILL), "the process cannot be killed");
  while (!Stop(pid).ended) {
  }
}

}  // namespace

bool mayTrace(pid_t pid) {
  if (ptrace(PTRACE_SEIZE, pid, 0, 0) != 0) {
    return false;
  }
  check(ptrace(PTRACE_INTERRUPT, pid, 0, 0), "the process cannot be stopped");
  const Stop stop(pid);
  check(ptrace(PTRACE_DETACH, pid, 0, stop.signal), "the process cannot be let go");
  return true;
}

bool killAtCall(pid_t pid, unsigned number, const std::function<void()>& begin,
                const std::function<bool()>& finished, const std::function<bool()>& started) {
  check(ptrace(PTRACE_SEIZE, pid, 0, PTRACE_O_TRACESYSGOOD), "the process cannot be traced");
  check(ptrace(PTRACE_INTERRUPT, pid, 0, 0), "the process cannot be stopped");
  Stop stop(pid);
  begin();
  bool counting = !started;
  unsigned counted = 0;
  while (!stop.ended) {
    counting = counting || started();
    if (counting && stop.atCall && isAtCountedCall(pid) && ++counted == number) {
      kill(pid);
      return true;
    }
    if (finished()) {
      check(ptrace(PTRACE_DETACH, pid, 0, stop.signal), "the process cannot be let go");
      return false;
    }
    check(ptrace(PTRACE_SYSCALL, pid, 0, stop.signal), "the process cannot be continued");
    stop = Stop(pid);
  }
  throw std::system_error(ESRCH, std::generic_category(), "the process ended of itself");
}

}  // namespace kova::system_test
