#include "Terminal.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

namespace kova::system_test {

Terminal::Terminal(const Camera& camera, const std::vector<std::string>& command) {
  std::vector<std::string> words = camera.execWords(command);
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  int terminal = -1;
  pid_ = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid_ < 0) {
    throw std::system_error(errno, std::generic_category(), "no terminal");
  }
  if (pid_ == 0) {
    execv(arguments.front(), arguments.data());
    _exit(127);
  }
  terminal_ = utils::UniqueFd(terminal);
  fcntl(terminal, F_SETFD, FD_CLOEXEC);
  fcntl(terminal, F_SETFL, O_NONBLOCK);
}

Terminal::~Terminal() {
  terminal_.reset();
  const bool ended = eventually([this] { return waitpid(pid_, nullptr, WNOHANG) != 0; });
  if (!ended) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void Terminal::read() const {
  std::array<char, 4096> buffer;
  ssize_t got;
  while ((got = ::read(terminal_.get(), buffer.data(), buffer.size())) > 0) {
    shown_.append(buffer.data(), static_cast<std::size_t>(got));
  }
}

bool Terminal::waitFor(const std::string& text, std::chrono::milliseconds limit) const {
  return eventually(
      [&] {
        read();
        return shown_.find(text) != std::string::npos;
      },
      limit);
}

void Terminal::type(const std::string& line) const {
  const std::string keys = line + "\n";
  if (write(terminal_.get(), keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
    throw std::system_error(errno, std::generic_category(), "the terminal takes nothing");
  }
}

namespace {

/// Waits for one of some texts.
/// @return which; throws when none is shown
std::string firstShown(const Terminal& terminal, const std::vector<std::string>& texts) {
  constexpr auto kNow = std::chrono::milliseconds(0);
  std::string shown;
  const auto look = [&] {
    const auto found = std::ranges::find_if(
        texts, [&](const std::string& text) { return terminal.waitFor(text, kNow); });
    shown = found != texts.end() ? *found : "";
    return found != texts.end();
  };
  if (!eventually(look, std::chrono::seconds(20))) {
    throw std::runtime_error("login does not answer: " + terminal.shown());
  }
  return shown;
}

}  // namespace

bool canLogIn(const Camera& camera, const std::string& user, const std::string& password) {
  constexpr char kAsked[] = "assword:";
  constexpr char kRefused[] = "incorrect";
  constexpr char kShell[] = "# ";
  // Where an ordinary user runs the camera nobody can change groups, which login does once it has
  // taken the password.
  constexpr char kTaken[] = "can't set groups";
  const Terminal terminal(camera, {"login", user});
  // What is typed before it asks it throws away, and a locked account it may refuse unasked.
  if (firstShown(terminal, {kAsked, kRefused}) == kRefused) {
    return false;
  }
  terminal.type(password);
  const std::string answer = firstShown(terminal, {kRefused, kTaken, kShell});
  if (answer != kShell) {
    return answer == kTaken;
  }
  terminal.type("echo in-as-$(id -u); exit");
  return terminal.waitFor("in-as-0");
}

}  // namespace kova::system_test
