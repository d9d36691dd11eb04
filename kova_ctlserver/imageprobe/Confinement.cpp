#include "Confinement.h"

#include <fcntl.h>
#include <grp.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace kova::imageprobe {
namespace {

constexpr rlim_t kProcessorSeconds = 5;
constexpr rlim_t kDataBytes = 256UL * 1024 * 1024;
constexpr uid_t kNobody = 65534;

struct FilterDeleter {
  void operator()(void* filter) const { seccomp_release(filter); }
};
using Filter = std::unique_ptr<void, FilterDeleter>;

// What decoders, the C++ runtime and the C library use between opening a file and printing a line.
constexpr int kAllowed[] = {
    SCMP_SYS(brk),
    SCMP_SYS(clock_gettime),
    SCMP_SYS(close),
    SCMP_SYS(exit),
    SCMP_SYS(exit_group),
    SCMP_SYS(fcntl),
    SCMP_SYS(fstat),
    SCMP_SYS(futex),
    SCMP_SYS(getdents64),
    SCMP_SYS(getegid),
    SCMP_SYS(geteuid),
    SCMP_SYS(getgid),
    SCMP_SYS(getpid),
    SCMP_SYS(getrandom),
    SCMP_SYS(getrusage),
    SCMP_SYS(gettid),
    SCMP_SYS(gettimeofday),
    SCMP_SYS(getuid),
    SCMP_SYS(lseek),
    SCMP_SYS(madvise),
    SCMP_SYS(mmap),
    SCMP_SYS(mprotect),
    SCMP_SYS(mremap),
    SCMP_SYS(munmap),
    SCMP_SYS(newfstatat),
    SCMP_SYS(pread64),
    SCMP_SYS(read),
    SCMP_SYS(readv),
    SCMP_SYS(restart_syscall),
    SCMP_SYS(rt_sigaction),
    SCMP_SYS(rt_sigprocmask),
    SCMP_SYS(rt_sigreturn),
    SCMP_SYS(sched_getaffinity),
    SCMP_SYS(sched_yield),
    SCMP_SYS(sigaltstack),
    SCMP_SYS(statx),
    SCMP_SYS(sysinfo),
    SCMP_SYS(uname),
};

// Refused rather than fatal: libraries that look for settings, plug-ins or further processors do
// without.
constexpr int kRefused[] = {
    SCMP_SYS(access),  SCMP_SYS(clone),    SCMP_SYS(clone3),     SCMP_SYS(faccessat),
    SCMP_SYS(getcwd),  SCMP_SYS(ioctl),    SCMP_SYS(faccessat2), SCMP_SYS(readlink),
    SCMP_SYS(unlink),  SCMP_SYS(unlinkat), SCMP_SYS(readlinkat), SCMP_SYS(socket),
    SCMP_SYS(mkdirat),
};

bool limit(__rlimit_resource_t resource, rlim_t value) {
  const rlimit both{value, value};
  return setrlimit(resource, &both) == 0;
}

bool setLimits() {
  return limit(RLIMIT_CPU, kProcessorSeconds) && limit(RLIMIT_DATA, kDataBytes) &&
         limit(RLIMIT_FSIZE, 0) && limit(RLIMIT_CORE, 0) && limit(RLIMIT_NPROC, 0);
}

/// In a user namespace of one user nobody else can be had; there the filter has to do.
bool becomeNobody() {
  if (geteuid() != 0) {
    return true;
  }
  const bool alone = setgroups(0, nullptr) == 0;
  if (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0) {
    return errno == EINVAL;  // as of an id that the namespace does not know
  }
  return alone;
}

/// Files only for reading, standard output and error only for writing, the own limits only to look
/// at.
bool allowInPart(scmp_filter_ctx filter) {
  constexpr scmp_datum_t kChanging = O_ACCMODE | O_CREAT | O_TRUNC;
  return seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(openat), 1,
                          SCMP_A2(SCMP_CMP_MASKED_EQ, kChanging, O_RDONLY)) == 0 &&
         seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(write), 1,
                          SCMP_A0(SCMP_CMP_LE, STDERR_FILENO)) == 0 &&
         seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(prlimit64), 2, SCMP_A0(SCMP_CMP_EQ, 0),
                          SCMP_A2(SCMP_CMP_EQ, 0)) == 0;
}

bool installFilter() {
  const Filter filter(seccomp_init(SCMP_ACT_KILL_PROCESS));
  if (filter == nullptr || !allowInPart(filter.get())) {
    return false;
  }
  for (const int call : kAllowed) {
    if (seccomp_rule_add(filter.get(), SCMP_ACT_ALLOW, call, 0) != 0) {
      return false;
    }
  }
  for (const int call : kRefused) {
    if (seccomp_rule_add(filter.get(), SCMP_ACT_ERRNO(EACCES), call, 0) != 0) {
      return false;
    }
  }
  return seccomp_load(filter.get()) == 0;
}

}  // namespace

bool confine() {
  return becomeNobody() && setLimits() && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         installFilter();
}

}  // namespace kova::imageprobe
