#include "Confinement.h"

#include <fcntl.h>
#include <grp.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iterator>

#include "kova/utils/Handle.h"
#include "kova/utils/UniqueFd.h"

namespace kova::imageprobe {
namespace {

// For decoding alone: loading the libraries takes a slow core as long.
constexpr rlim_t kProcessorSeconds = 1;
constexpr rlim_t kDataBytes = 256UL * 1024 * 1024;
constexpr uid_t kNobody = 65534;

using Filter = utils::Handle<void, seccomp_release>;

// Used by decoders, the C++ runtime and the C library between reading a file and printing a line.
constexpr int kAllowed[] = {
    SCMP_SYS(brk),
    SCMP_SYS(clock_gettime),
    SCMP_SYS(close),
    SCMP_SYS(exit),
    SCMP_SYS(exit_group),
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

// Refused with EACCES, not fatal: libraries look for settings, plug-ins or processors and work
// without them.
constexpr int kRefused[] = {
    SCMP_SYS(access),  SCMP_SYS(clone),    SCMP_SYS(clone3),     SCMP_SYS(faccessat),
    SCMP_SYS(getcwd),  SCMP_SYS(ioctl),    SCMP_SYS(faccessat2), SCMP_SYS(readlink),
    SCMP_SYS(unlink),  SCMP_SYS(unlinkat), SCMP_SYS(readlinkat), SCMP_SYS(socket),
    SCMP_SYS(mkdirat),
};

/// The type of the resource depends on the C library.
template <typename Resource>
bool limit(Resource resource, rlim_t value) {
  const rlimit both{value, value};
  return setrlimit(resource, &both) == 0;
}

/// SIGPROF ends the process after kProcessorSeconds. RLIMIT_CPU, which counts whole seconds since
/// the process started, catches one that ignores the signal.
bool limitProcessorTime() {
  rusage used{};
  itimerval timer{};
  timer.it_value.tv_sec = kProcessorSeconds;
  if (getrusage(RUSAGE_SELF, &used) != 0 || signal(SIGPROF, SIG_DFL) == SIG_ERR ||
      setitimer(ITIMER_PROF, &timer, nullptr) != 0) {
    return false;
  }
  const auto spent = static_cast<rlim_t>(used.ru_utime.tv_sec + used.ru_stime.tv_sec);
  return limit(RLIMIT_CPU, spent + kProcessorSeconds + 2);
}

bool setLimits() {
  return limitProcessorTime() && limit(RLIMIT_DATA, kDataBytes) && limit(RLIMIT_FSIZE, 0) &&
         limit(RLIMIT_CORE, 0) && limit(RLIMIT_NPROC, 0);
}

/// In a single-user namespace the process cannot become nobody; there the filter alone confines it.
bool becomeNobody() {
  if (geteuid() != 0) {
    return true;
  }
  const bool groupsDropped = setgroups(0, nullptr) == 0;
  if (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0) {
    return errno == EINVAL;  // the namespace does not map the id
  }
  return groupsDropped;
}

/// The picture, opened once for each time that a decoder may open it: each descriptor needs its own
/// file position.
struct Picture {
  const char* path = nullptr;
  std::array<utils::UniqueFd, 16> descriptors;
  std::size_t left = 0;
  int error = EMFILE;  // result of open(2) when none is left
};

Picture picture;

bool isPlain(const utils::UniqueFd& file) {
  struct stat info {};
  return fstat(file.get(), &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1;
}

/// The folder of the picture is world-writable, so links and special files are refused, and a FIFO
/// does not block the probe.
utils::UniqueFd openPlainFile(const char* path) {
  utils::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (file && !isPlain(file)) {
    file.reset();
    errno = EPERM;
  }
  return file;
}

void openPicture(const char* path) {
  picture.path = path;
  for (utils::UniqueFd& descriptor : picture.descriptors) {
    descriptor = openPlainFile(path);
    if (!descriptor) {
      picture.error = errno;
      return;
    }
    ++picture.left;
  }
}

/// The result of open(2) under the filter: a descriptor, or a negative error number.
int descriptorOf(const char* path) {
  if (std::strcmp(path, picture.path) != 0) {
    return -EACCES;
  }
  if (picture.left == 0) {
    return -picture.error;
  }
  return picture.descriptors[--picture.left].release();
}

/// Handles SIGSYS, which the filter raises for openat(2): puts the result into the saved register,
/// from which the interrupted call returns it.
void onOpen(int, siginfo_t*, void* context) {
  auto& machine = static_cast<ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
  machine.gregs[REG_RAX] = descriptorOf(reinterpret_cast<const char*>(machine.gregs[REG_RSI]));
#elif defined(__aarch64__)
  machine.regs[0] = static_cast<unsigned long>(
      static_cast<long>(descriptorOf(reinterpret_cast<const char*>(machine.regs[1]))));
#else
#error "Say where this processor's mcontext_t has a system call's second argument and its result."
#endif
}

bool interceptOpen() {
  struct sigaction action {};
  action.sa_sigaction = onOpen;
  action.sa_flags = SA_SIGINFO | SA_NODEFER;
  return sigaction(SIGSYS, &action, nullptr) == 0;
}

/// Allows fcntl(2) on descriptor flags, but not F_SETOWN, which directs signals to other processes.
bool allowHarmlessFcntl(scmp_filter_ctx filter) {
  constexpr int kHarmless[] = {F_GETFD, F_SETFD, F_GETFL};
  return std::all_of(std::begin(kHarmless), std::end(kHarmless), [filter](int command) {
    return seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(fcntl), 1,
                            SCMP_A1_32(SCMP_CMP_EQ, static_cast<unsigned>(command))) == 0;
  });
}

/// Allows mmap(2) of the picture and of private memory, which RLIMIT_DATA counts, but not of shared
/// memory.
bool allowMap(scmp_filter_ctx filter) {
  return seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(mmap), 1,
                          SCMP_A3(SCMP_CMP_MASKED_EQ, MAP_ANONYMOUS, 0)) == 0 &&
         seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(mmap), 1,
                          SCMP_A3(SCMP_CMP_MASKED_EQ, MAP_TYPE, MAP_PRIVATE)) == 0;
}

/// Restricts the arguments of some calls: openat(2) for reading traps to onOpen, write(2) reaches
/// only the standard streams, prlimit(2) only reads limits.
bool allowInPart(scmp_filter_ctx filter) {
  constexpr scmp_datum_t kChanging = O_ACCMODE | O_CREAT | O_TRUNC;
  return seccomp_rule_add(filter, SCMP_ACT_TRAP, SCMP_SYS(openat), 1,
                          SCMP_A2(SCMP_CMP_MASKED_EQ, kChanging, O_RDONLY)) == 0 &&
         allowHarmlessFcntl(filter) && allowMap(filter) &&
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

bool confine(const char* path) {
  if (!becomeNobody()) {
    return false;
  }
  openPicture(path);
  return setLimits() && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && interceptOpen() &&
         installFilter();
}

}  // namespace kova::imageprobe
