#include "ChildProcesses.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <array>
#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "kova/utils/UniqueFd.h"

namespace kova::utils {
namespace {

/// The record of getdents64(2), of which only the name is used.
struct DirectoryEntry {
  std::uint64_t inode;
  std::int64_t offset;
  std::uint16_t length;
  std::uint8_t type;
  char name[1];
};
constexpr std::size_t kLengthAt = offsetof(DirectoryEntry, length);
constexpr std::size_t kNameAt = offsetof(DirectoryEntry, name);

/// The number at the beginning of the text; 0 if there is none.
pid_t toNumber(std::string_view text) {
  pid_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

/// The parent process id in a line "PID (NAME) STATE PARENT ..." of /proc, see proc(5); 0 without
/// such a line.
pid_t parentOf(int folder) {
  std::array<char, 512> text;
  const UniqueFd fd(openat(folder, "stat", O_RDONLY | O_CLOEXEC));
  const ssize_t got = read(fd.get(), text.data(), text.size());
  if (got <= 0) return 0;
  const std::string_view line(text.data(), static_cast<std::size_t>(got));
  constexpr std::string_view kBeforeParent = ") S ";
  return toNumber(line.substr(line.rfind(')') + kBeforeParent.size()));
}

/// No child is reaped meanwhile, so that none of the ids can be reused by another process or group.
void killIfChild(int processes, const char* name) {
  const UniqueFd folder(openat(processes, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (parentOf(folder.get()) != getpid()) return;
  const pid_t pid = toNumber(name);
  kill(-pid, SIGKILL);
  kill(pid, SIGKILL);
}

void killOnce() {
  alignas(DirectoryEntry) std::array<char, 8192> entries;
  const UniqueFd processes(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  long got = 0;
  while ((got = syscall(SYS_getdents64, processes.get(), entries.data(), entries.size())) > 0) {
    std::span<const char> rest(entries.data(), static_cast<std::size_t>(got));
    while (!rest.empty()) {
      std::uint16_t length = 0;
      std::memcpy(&length, &rest[kLengthAt], sizeof length);
      killIfChild(processes.get(), &rest[kNameAt]);
      rest = rest.subspan(length);
    }
  }
}

}  // namespace

bool reapChildren() {
  pid_t ended = 0;
  while ((ended = waitpid(-1, nullptr, WNOHANG)) > 0) {
  }
  return ended == 0;
}

// What a child leaves behind when it ends becomes a child of this process before the wait for it
// returns.
void killChildren() {
  do {
    killOnce();
  } while (waitpid(-1, nullptr, 0) > 0);
}

}  // namespace kova::utils
