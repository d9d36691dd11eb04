#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <memory>
#include <string_view>

#include "kova/utils/Process.h"
#include "kova/utils/UniqueFd.h"
#include "kova/utils/Words.h"

namespace kova::utils {
namespace {

struct CloseDir {
  void operator()(DIR* folder) const { closedir(folder); }
};

std::string_view baseName(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

/// The start of a file of procfs, as much as fits in `buffer`.
template <std::size_t kSize>
std::string_view readStart(const std::string& path, std::array<char, kSize>& buffer) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const ssize_t got = fd ? read(fd.Get(), buffer.data(), buffer.size()) : 0;
  return {buffer.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
}

/// Some kernels still name the executable of a zombie.
bool isZombie(const std::string& folder) {
  std::array<char, 512> buffer;
  std::string_view stat = readStart(folder + "/stat", buffer);
  stat.remove_prefix(std::min(stat.rfind(')') + 1, stat.size()));  // the name may hold anything
  return nextWord(stat) == "Z";
}

/// Base name of the first word of the command line; "" when there is none.
std::string commandName(const std::string& folder) {
  std::array<char, PATH_MAX> buffer;
  const std::string_view words = readStart(folder + "/cmdline", buffer);
  return std::string(baseName(words.substr(0, words.find('\0'))));
}

/// Base name of the executable, also when that was replaced since; "" when it cannot
/// be known.
std::string executableName(const std::string& folder) {
  constexpr std::string_view kDeleted = " (deleted)";
  std::array<char, PATH_MAX> text;
  const ssize_t got = readlink((folder + "/exe").c_str(), text.data(), text.size());
  if (got <= 0) return "";
  std::string_view path(text.data(), static_cast<std::size_t>(got));
  if (path.ends_with(kDeleted)) path.remove_suffix(kDeleted.size());
  return std::string(baseName(path));
}

bool isCalled(const char* pid, const std::string& name) {
  const std::string folder = std::string("/proc/") + pid;
  return (commandName(folder) == name || executableName(folder) == name) && !isZombie(folder);
}

/// The process id that a folder of /proc stands for, 0 for the other entries.
pid_t processId(const char* entry) {
  pid_t pid = 0;
  parseNumber(entry, pid);
  return pid;
}

}  // namespace

int kill_process_by_name(const std::string& name, int signal) {
  if (name.empty()) return 0;
  const std::unique_ptr<DIR, CloseDir> processes(opendir("/proc"));
  if (!processes) return 0;
  int signalled = 0;
  while (const dirent* entry = readdir(processes.get())) {
    const pid_t pid = processId(entry->d_name);
    if (pid <= 0 || pid == getpid() || !isCalled(entry->d_name, name)) continue;
    if (kill(pid, signal) == 0) ++signalled;
  }
  return signalled;
}

}  // namespace kova::utils
