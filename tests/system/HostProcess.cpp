#include "HostProcess.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace kova::system_test {

namespace fs = std::filesystem;

namespace {

fs::path processFolder(pid_t pid) {
  return fs::path("/proc") / std::to_string(pid);
}

bool isNumber(const std::string& text) {
  return text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

// The path of a process's root means nothing across namespaces, so a file below it is compared: it
// is the same inode in every mode of the camera.
std::vector<pid_t> processesOf(const Camera& camera, const std::string& program) {
  std::vector<pid_t> found;
  const fs::path mark = camera.root() / "run/boot_count";
  for (const auto& entry : fs::directory_iterator("/proc")) {
    std::error_code none;
    if (isNumber(entry.path().filename()) && readFile(entry.path() / "comm") == program + "\n" &&
        fs::equivalent(entry.path() / "root/run/boot_count", mark, none)) {
      found.push_back(std::stoi(entry.path().filename()));
    }
  }
  return found;
}

HostProcess::HostProcess(pid_t pid)
    : pid_(pid), handle_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {
  if (!handle_) {
    throw std::system_error(errno, std::generic_category(), "no process to watch");
  }
}

void HostProcess::signal(int number) const {
  if (syscall(SYS_pidfd_send_signal, handle_.get(), number, nullptr, 0) != 0) {
    throw std::system_error(errno, std::generic_category(), "the process cannot be signalled");
  }
}

bool HostProcess::waitForEnd(std::chrono::milliseconds limit) const {
  pollfd end{handle_.get(), POLLIN, 0};
  return poll(&end, 1, static_cast<int>(limit.count())) == 1;
}

std::size_t HostProcess::descriptors() const {
  const fs::directory_iterator open(processFolder(pid_) / "fd");
  return static_cast<std::size_t>(std::distance(begin(open), end(open)));
}

std::size_t HostProcess::statusKiB(const std::string& field) const {
  std::istringstream status(readFile(processFolder(pid_) / "status"));
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with(field)) {
      return std::stoul(line.substr(field.size()));
    }
  }
  throw std::runtime_error("no " + field + " of process " + std::to_string(pid_));
}

HostProcess controlServer(const Camera& camera) {
  std::vector<pid_t> found;
  eventually([&] { return (found = processesOf(camera, "kova_ctlserver")).size() == 1; });
  if (found.size() != 1) {
    throw std::runtime_error(std::to_string(found.size()) + " control servers run");
  }
  return HostProcess(found.front());
}

}  // namespace kova::system_test
