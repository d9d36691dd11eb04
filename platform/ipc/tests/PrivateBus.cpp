#include "PrivateBus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kova::ipc::testing {
namespace {

constexpr char kVariable[] = "KOVA_BUS_ADDRESS";
constexpr int kPatienceMs = 10'000;

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  std::size_t at = text.find(from);
  if (at == std::string::npos) {
    throw std::runtime_error("the bus configuration does not hold " + from);
  }
  for (; at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

[[noreturn]] void runBus(const std::string& folder, int addressFd) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int log = open((folder + "/log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(log, STDERR_FILENO);
  const std::string config = "--config-file=" + folder + "/bus.conf";
  const std::string print = "--print-address=" + std::to_string(addressFd);
  execlp("dbus-daemon", "dbus-daemon", config.c_str(), print.c_str(), "--nofork", "--nopidfile",
         "--nosyslog", nullptr);
  _exit(127);
}

// The bus prints its address once it listens.
bool awaitAddress(int fd) {
  pollfd pipe{fd, POLLIN, 0};
  char byte = 0;
  return poll(&pipe, 1, kPatienceMs) == 1 && read(fd, &byte, 1) == 1;
}

}  // namespace

PrivateBus::Folder::Folder() : path(std::filesystem::temp_directory_path() / "kova_bus.XXXXXX") {
  if (mkdtemp(path.data()) == nullptr) {
    throw std::runtime_error("no folder for a bus");
  }
}

PrivateBus::Folder::~Folder() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

PrivateBus::PrivateBus(const Changes& changes) : address_("unix:path=" + socket()) {
  // Let other users connect, so that the policy decides about them.
  std::filesystem::permissions(folder_.path, std::filesystem::perms{0711});
  writeConfig(changes);
  start();
  setenv(kVariable, address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
  kill();
  unsetenv(kVariable);
}

void PrivateBus::writeConfig(const Changes& changes) const {
  std::stringstream shipped;
  shipped << std::ifstream(KOVA_BUS_CONFIG).rdbuf();
  std::string text = shipped.str();
  replaceAll(text, "unix:path=/run/kova/bus", address_);
  replaceAll(text, "user=\"0\"", "user=\"" + std::to_string(geteuid()) + "\"");
  for (const auto& [from, to] : changes) {
    replaceAll(text, from, to);
  }
  std::ofstream(folder_.path + "/bus.conf") << text;
}

void PrivateBus::start() {
  int ends[2];
  if (pipe(ends) != 0) {
    throw std::runtime_error("no pipe to a bus");
  }
  pid_ = fork();
  if (pid_ == 0) {
    close(ends[0]);
    runBus(folder_.path, ends[1]);
  }
  close(ends[1]);
  const bool ready = pid_ > 0 && awaitAddress(ends[0]);
  close(ends[0]);
  if (!ready) {
    kill();
    std::stringstream log;
    log << std::ifstream(folder_.path + "/log").rdbuf();
    throw std::runtime_error("the bus does not come up: " + log.str());
  }
}

void PrivateBus::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
}

}  // namespace kova::ipc::testing
