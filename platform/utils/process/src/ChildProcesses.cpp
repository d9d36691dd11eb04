#include "ChildProcesses.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "kova/utils/Clock.h"
#include "kova/utils/UniqueFd.h"

namespace kova::utils {
namespace {

/// A record of getdents64(2); only the name is used.
struct DirectoryEntry {
  std::uint64_t inode;
  std::int64_t offset;
  std::uint16_t length;
  std::uint8_t type;
  char name[1];
};
constexpr std::size_t kLengthAt = offsetof(DirectoryEntry, length);
constexpr std::size_t kNameAt = offsetof(DirectoryEntry, name);

/// The text as a number; 0 if it is not a number.
pid_t toNumber(std::string_view text) {
  pid_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

/// The parent process id in a line "PID (NAME) STATE PARENT ..." of /proc, see proc(5).
pid_t parentOf(int folder) {
  std::array<char, 512> text;
  const UniqueFd fd(openat(folder, "stat", O_RDONLY | O_CLOEXEC));
  const ssize_t got = fd ? read(fd.get(), text.data(), text.size()) : 0;
  if (got <= 0) return 0;
  const std::string_view line(text.data(), static_cast<std::size_t>(got));
  const std::size_t name = line.rfind(") ");
  if (name == std::string_view::npos || line.size() < name + 5) return 0;
  const std::string_view rest = line.substr(name + 4);
  return toNumber(rest.substr(0, rest.find(' ')));
}

/// No id can be reused meanwhile: children are reaped only between the calls of killOnce().
void killIfChild(int processes, const char* name) {
  const pid_t pid = toNumber(name);
  if (pid <= 0) return;
  const UniqueFd folder(openat(processes, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder || parentOf(folder.get()) != getpid()) return;
  kill(-pid, SIGKILL);
  kill(pid, SIGKILL);
}

/// Scans /proc by system calls, since opendir(3) allocates memory.
void killOnce() {
  alignas(DirectoryEntry) std::array<char, 8192> entries;
  const UniqueFd processes(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  long got = 0;
  while (processes &&
         (got = syscall(SYS_getdents64, processes.get(), entries.data(), entries.size())) > 0) {
    for (std::size_t at = 0; at < static_cast<std::size_t>(got);) {
      std::uint16_t length = 0;
      std::memcpy(&length, &entries[at + kLengthAt], sizeof length);
      killIfChild(processes.get(), &entries[at + kNameAt]);
      at += length;
    }
  }
}

}  // namespace

bool reapChildren() {
  pid_t ended = 0;
  do {
    ended = waitpid(-1, nullptr, WNOHANG);
  } while (ended > 0 || (ended < 0 && errno == EINTR));
  return ended == 0;
}

// Repeats, since a child may fork before it is killed, and orphans are reparented to us later.
void killChildren() {
  constexpr int kLongestStepMs = 100;
  for (int step = 1; reapChildren(); step = std::min(step * 2, kLongestStepMs)) {
    killOnce();
    sleepMs(step);
  }
}

}  // namespace kova::utils
