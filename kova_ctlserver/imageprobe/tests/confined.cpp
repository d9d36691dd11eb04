#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "../Confinement.h"

/// Confines itself as the probe does and then attempts one operation:
///
///   confined ACT PATH [USER GROUPS GROUP NOBODY]
///
/// With four more arguments geteuid(2) returns USER, and setgroups(2), setresgid(2) and
/// setresuid(2) are only printed and fail with the given error numbers.
///
/// Exit status 0 if the operation worked, 1 if it was refused, 2 for wrong usage, 3 if the process
/// could not be confined; death by SIGSYS if the filter does not allow the attempt.
namespace {

using Act = bool (*)(const char* path);

std::vector<unsigned> answers;

int answer(std::size_t call) {
  errno = static_cast<int>(answers[call]);
  return errno == 0 ? 0 : -1;
}

bool opens(const char* path, int flags) {
  return open(path, flags, 0644) >= 0;
}

bool reads(const char* path) {
  char content[8] = "";
  const int fd = open(path, O_RDONLY);
  const ssize_t got = read(fd, content, sizeof content);
  close(fd);
  return got == 7 && std::memcmp(content, "content", 7) == 0;
}

bool readsTimes(const char* path, int times) {
  while (times > 0 && reads(path)) {
    --times;
  }
  return times == 0;
}

bool isLimited(decltype(RLIMIT_DATA) resource, rlim_t value) {
  rlimit present{};
  return getrlimit(resource, &present) == 0 && present.rlim_cur == value &&
         present.rlim_max == value;
}

bool spin(const char*) {
  for (volatile unsigned turns = 0;;) {
    turns = turns + 1;
  }
}

const std::map<std::string, Act> kActs = {
    {"nothing", [](const char*) { return true; }},
    {"read", [](const char* path) { return reads(path); }},
    {"read-again", [](const char* path) { return readsTimes(path, 16); }},
    {"read-on-and-on", [](const char* path) { return readsTimes(path, 17); }},
    {"read-another-file", [](const char*) { return opens("/etc/hostname", O_RDONLY); }},
    {"read-folder", [](const char*) { return opens("/", O_RDONLY | O_DIRECTORY); }},
    {"own", [](const char*) { return fcntl(STDOUT_FILENO, F_SETOWN, getppid()) == 0; }},
    {"own-thread",
     [](const char*) {
       const f_owner_ex owner{F_OWNER_PID, getppid()};
       return fcntl(STDOUT_FILENO, F_SETOWN_EX, &owner) == 0;
     }},
    {"choose-signal", [](const char*) { return fcntl(STDOUT_FILENO, F_SETSIG, SIGKILL) == 0; }},
    {"signal-on-output", [](const char*) { return fcntl(STDOUT_FILENO, F_SETFL, O_ASYNC) == 0; }},
    {"lease", [](const char*) { return fcntl(STDOUT_FILENO, F_SETLEASE, F_RDLCK) == 0; }},
    {"look-at-flags", [](const char*) { return fcntl(STDOUT_FILENO, F_GETFL) >= 0; }},
    {"who-am-i",
     [](const char*) {
       std::printf("%u %u %u %u\n", getuid(), geteuid(), getgid(), getegid());
       return std::fflush(stdout) == 0;
     }},
    {"write", [](const char* path) { return opens(path, O_WRONLY); }},
    {"read-write", [](const char* path) { return opens(path, O_RDWR); }},
    {"create",
     [](const char* path) {
       return opens((std::string(path) + ".new").c_str(), O_RDONLY | O_CREAT);
     }},
    {"truncate-on-open", [](const char* path) { return opens(path, O_RDONLY | O_TRUNC); }},
    {"truncate", [](const char* path) { return truncate(path, 0) == 0; }},
    {"unlink", [](const char* path) { return unlink(path) == 0; }},
    {"rename", [](const char* path) { return rename(path, "/tmp/renamed") == 0; }},
    {"link", [](const char* path) { return symlink(path, "/tmp/linked") == 0; }},
    {"mkdir",
     [](const char* path) {
       return syscall(SYS_mkdirat, AT_FDCWD, (std::string(path) + ".d").c_str(), 0755) == 0;
     }},
    {"chmod", [](const char* path) { return chmod(path, 0777) == 0; }},
    {"chown", [](const char* path) { return chown(path, 1, 1) == 0; }},
    {"socket", [](const char*) { return socket(AF_INET, SOCK_STREAM, 0) >= 0; }},
    {"local-socket", [](const char*) { return socket(AF_UNIX, SOCK_STREAM, 0) >= 0; }},
    {"socket-pair",
     [](const char*) {
       int ends[2];
       return socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0;
     }},
    {"fork", [](const char*) { return fork() >= 0; }},
    {"thread",
     [](const char*) {
       return syscall(SYS_clone, CLONE_VM | CLONE_THREAD | CLONE_SIGHAND, nullptr) >= 0;
     }},
    {"execute",
     [](const char*) { return execl("/bin/true", "true", static_cast<char*>(nullptr)) == 0; }},
    {"kill", [](const char*) { return kill(getppid(), 0) == 0; }},
    {"trace", [](const char*) { return ptrace(PTRACE_TRACEME, 0, 0, 0) == 0; }},
    {"groups", [](const char*) { return getgroups(0, nullptr) >= 0; }},
    {"become-root", [](const char*) { return setresuid(0, 0, 0) == 0; }},
    {"mount", [](const char*) { return mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0; }},
    {"unshare", [](const char*) { return unshare(CLONE_NEWUSER) == 0; }},
    {"other-descriptor", [](const char*) { return write(3, "x", 1) == 1; }},
    {"raise-limit",
     [](const char*) {
       const rlimit none{RLIM_INFINITY, RLIM_INFINITY};
       return setrlimit(RLIMIT_FSIZE, &none) == 0;
     }},
    {"look-at-limits",
     [](const char*) {
       return isLimited(RLIMIT_DATA, 256UL << 20U) && isLimited(RLIMIT_FSIZE, 0) &&
              isLimited(RLIMIT_CORE, 0) && isLimited(RLIMIT_NPROC, 0) && isLimited(RLIMIT_CPU, 3);
     }},
    {"memory",
     [](const char*) {
       return mmap(nullptr, 260UL << 20U, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1,
                   0) != MAP_FAILED;
     }},
    {"shared-memory",
     [](const char*) {
       return mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0) !=
              MAP_FAILED;
     }},
    {"spin", spin},
    {"spin-unsignalled",
     [](const char* path) {
       signal(SIGPROF, SIG_IGN);
       return spin(path);
     }},
};

}  // namespace

extern "C" {
uid_t __real_geteuid();
uid_t __wrap_geteuid() {
  return answers.empty() ? __real_geteuid() : answers[0];
}

int __real_setgroups(std::size_t count, const gid_t* groups);
int __wrap_setgroups(std::size_t count, const gid_t* groups) {
  if (answers.empty()) {
    return __real_setgroups(count, groups);
  }
  std::printf("groups %zu\n", count);
  return answer(1);
}

int __real_setresgid(gid_t real, gid_t effective, gid_t saved);
int __wrap_setresgid(gid_t real, gid_t effective, gid_t saved) {
  if (answers.empty()) {
    return __real_setresgid(real, effective, saved);
  }
  std::printf("group %u %u %u\n", real, effective, saved);
  return answer(2);
}

int __real_setresuid(uid_t real, uid_t effective, uid_t saved);
int __wrap_setresuid(uid_t real, uid_t effective, uid_t saved) {
  if (answers.empty()) {
    return __real_setresuid(real, effective, saved);
  }
  std::printf("user %u %u %u\n", real, effective, saved);
  return answer(3);
}
}

int main(int argc, char** argv) {
  const auto act = argc == 3 || argc == 7 ? kActs.find(argv[1]) : kActs.end();
  for (int i = 3; i < argc; ++i) {
    answers.push_back(static_cast<unsigned>(std::stoul(argv[i])));
  }
  if (act == kActs.end()) {
    return 2;
  }
  // Descriptor 3 simulates one leaked by the parent process.
  if (dup2(STDOUT_FILENO, 3) != 3) {
    return 2;
  }
  if (!kova::imageprobe::confine(argv[2])) {
    return 3;
  }
  return act->second(argv[2]) ? 0 : 1;
}
