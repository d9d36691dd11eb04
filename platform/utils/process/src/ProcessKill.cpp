#include <dirent.h>
#include <fcntl.h>

#include <array>
#include <climits>
#include <csignal>
#include <string_view>

#include "kova/utils/Handle.h"
#include "kova/utils/Parsing.h"
#include "kova/utils/Process.h"
#include "kova/utils/UniqueFd.h"

namespace kova::utils {
namespace {

std::string_view baseName(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

/// Base name of argv[0]; "" for a zombie or a kernel thread.
std::string commandName(const std::string& folder) {
  std::array<char, PATH_MAX> text;
  const UniqueFd fd(open((folder + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC));
  const ssize_t got = fd ? read(fd.get(), text.data(), text.size()) : 0;
  if (got <= 0) return "";
  const std::string_view words(text.data(), static_cast<std::size_t>(got));
  return std::string(baseName(words.substr(0, words.find('\0'))));
}

/// Base name of the executable, even if that has been replaced since; "" as above.
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
  return commandName(folder) == name || executableName(folder) == name;
}

/// The process id of an entry of /proc; 0 for other entries.
pid_t processId(const char* entry) {
  pid_t pid = 0;
  parseNumber(entry, pid);
  return pid;
}

}  // namespace

int kill_process_by_name(const std::string& name, int signal) {
  if (name.empty()) return 0;
  const Handle<DIR, closedir> processes(opendir("/proc"));
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
