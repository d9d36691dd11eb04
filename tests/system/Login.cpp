#include "Login.h"

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
#include <vector>

#include "kova/utils/UniqueFd.h"

namespace kova::system_test {

namespace {

constexpr auto kLoginPatience = std::chrono::seconds(20);

/// A program inside a camera on its own pseudo-terminal; the destructor hangs up.
class Terminal {
 public:
  /// Throws std::system_error if it cannot be started.
  Terminal(const Camera& camera, const std::vector<std::string>& command) {
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
  ~Terminal() {
    terminal_.reset();
    const bool ended = eventually([this] { return waitpid(pid_, nullptr, WNOHANG) != 0; });
    if (!ended) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  void type(const std::string& line) const {
    const std::string keys = line + "\n";
    if (write(terminal_.get(), keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
      throw std::system_error(errno, std::generic_category(), "the terminal takes nothing");
    }
  }

  /// Waits until the terminal shows one of `texts`.
  /// @return that text; throws if none appears
  std::string firstShown(const std::vector<std::string>& texts) {
    auto found = texts.end();
    const auto look = [&] {
      read();
      found = std::ranges::find_if(
          texts, [this](const auto& text) { return shown_.find(text) != std::string::npos; });
      return found != texts.end();
    };
    if (!eventually(look, kLoginPatience)) {
      throw std::runtime_error("login does not answer: " + shown_);
    }
    return *found;
  }

 private:
  void read() {
    std::array<char, 4096> buffer;
    ssize_t got;
    while ((got = ::read(terminal_.get(), buffer.data(), buffer.size())) > 0) {
      shown_.append(buffer.data(), static_cast<std::size_t>(got));
    }
  }

  utils::UniqueFd terminal_;
  pid_t pid_ = -1;
  std::string shown_;
};

}  // namespace

bool canLogIn(const Camera& camera, const std::string& user, const std::string& password) {
  constexpr char kAsked[] = "assword:";
  constexpr char kRefused[] = "incorrect";
  constexpr char kShell[] = "# ";
  // In a camera booted by an ordinary user, login cannot change groups, which it does only after it
  // has accepted the password.
  constexpr char kTaken[] = "can't set groups";
  Terminal terminal(camera, {"login", user});
  // login discards input before its prompt, and may refuse a locked account without one.
  if (terminal.firstShown({kAsked, kRefused}) == kRefused) {
    return false;
  }
  terminal.type(password);
  const std::string answer = terminal.firstShown({kRefused, kTaken, kShell});
  if (answer != kShell) {
    return answer == kTaken;
  }
  terminal.type("echo in-as-$(id -u); exit");
  terminal.firstShown({"in-as-0"});
  return true;
}

}  // namespace kova::system_test
