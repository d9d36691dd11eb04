#include "Child.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "../../platform/utils/process/src/Pipe.h"

namespace kova::ctl::testing {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void become(const std::vector<std::string>& arguments) {
  signal(SIGPIPE, SIG_DFL);
  std::vector<char*> argv;
  std::string program = KOVACTL_PROGRAM;
  argv.push_back(program.data());
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  execv(KOVACTL_PROGRAM, argv.data());
  _exit(127);
}

// Reads available output; closes the stream at its end.
void take(utils::UniqueFd& fd, std::string& text) {
  std::array<char, 4096> buffer{};
  const ssize_t got = ::read(fd.get(), buffer.data(), buffer.size());
  if (got > 0) {
    text.append(buffer.data(), static_cast<std::size_t>(got));
  } else {
    fd.reset();
  }
}

}  // namespace

Child::Child(const std::vector<std::string>& arguments, On on) {
  ::signal(SIGPIPE, SIG_IGN);  // a child that ends early fails its test, not the whole program
  if (on == On::Terminal) {
    winsize size{.ws_row = 24, .ws_col = 60, .ws_xpixel = 0, .ws_ypixel = 0};
    int terminal = -1;
    pid_ = forkpty(&terminal, nullptr, nullptr, &size);
    if (pid_ == 0) {
      become(arguments);
    }
    output_ = utils::UniqueFd(terminal);
    input_ = utils::UniqueFd(dup(terminal));
    return;
  }
  utils::Pipe in;
  utils::Pipe out;
  utils::Pipe err;
  EXPECT_TRUE(in.open() && out.open() && err.open());
  pid_ = fork();
  if (pid_ == 0) {
    dup2(in.read.get(), STDIN_FILENO);
    dup2(out.write.get(), STDOUT_FILENO);
    dup2(err.write.get(), STDERR_FILENO);
    become(arguments);
  }
  input_ = std::move(in.write);
  output_ = std::move(out.read);
  error_ = std::move(err.read);
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void Child::write(const std::string& text) {
  EXPECT_EQ(::write(input_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void Child::signal(int signal) const {
  kill(pid_, signal);
}

bool Child::read(int timeoutMs) {
  std::array<pollfd, 2> streams{{{output(), POLLIN, 0}, {error_.get(), POLLIN, 0}}};
  poll(streams.data(), streams.size(), timeoutMs);
  if (streams[0].revents != 0) {
    take(output_, out_);
  }
  if (streams[1].revents != 0) {
    take(error_, err_);
  }
  return output_ || error_;
}

bool Child::awaitOutput(const std::string& text, int milliseconds) {
  return await(out_, text, milliseconds);
}

bool Child::awaitError(const std::string& text) {
  return await(err_, text, kPatienceMs);
}

bool Child::await(const std::string& stream, const std::string& text, int milliseconds) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
  while (stream.find(text) == std::string::npos && Clock::now() < deadline && read(20)) {
  }
  return stream.find(text) != std::string::npos;
}

Result Child::wait() {
  const auto deadline = Clock::now() + std::chrono::milliseconds(kPatienceMs);
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    read(10);
    if (Clock::now() > deadline) {
      ADD_FAILURE() << "kovactl does not end: " << out_ << err_;
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
  }
  pid_ = -1;
  // The child has exited, so all its output is in the pipes; a terminal reports EOF as an error.
  while ((output_ || error_) && Clock::now() < deadline) {
    pollfd rest{output_ ? output() : error_.get(), POLLIN, 0};
    if (poll(&rest, 1, 0) <= 0) {
      break;
    }
    read(0);
  }
  return {WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status), out_, err_};
}

bool Child::echoes() const {
  termios settings{};
  EXPECT_EQ(tcgetattr(input(), &settings), 0);
  return (settings.c_lflag & ECHO) != 0;
}

Result run(const std::vector<std::string>& arguments, const std::string& input) {
  Child child(arguments);
  if (!input.empty()) {
    child.write(input);
  }
  child.closeInput();
  return child.wait();
}

void sendUntilTaken(const std::string& endpoint, const std::vector<std::string>& fields) {
  std::vector<std::string> arguments{"call", "PlayState", "--to", endpoint};
  arguments.insert(arguments.end(), fields.begin(), fields.end());
  int status = 3;
  for (int attempt = 0; status == 3 && attempt < 1000; ++attempt) {
    status = run(arguments).status;
  }
  EXPECT_EQ(status, 0);
}

void expectOutput(const Result& result, int status, const std::string& out, const Place& place) {
  const ::testing::ScopedTrace caller(place.file_name(), static_cast<int>(place.line()), "");
  EXPECT_EQ(result.status, status) << result.err;
  EXPECT_EQ(result.out, out);
}

void expectError(const Result& result, int status, const std::string& err, const Place& place) {
  expectOutput(result, status, "", place);
  const ::testing::ScopedTrace caller(place.file_name(), static_cast<int>(place.line()), "");
  EXPECT_EQ(result.err, err);
}

void expectFailure(const Result& result, int status, const std::string& said, const Place& place) {
  const ::testing::ScopedTrace caller(place.file_name(), static_cast<int>(place.line()), "");
  EXPECT_EQ(result.status, status) << result.err;
  EXPECT_THAT(result.err, ::testing::HasSubstr(said));
}

std::string bridgeCommand(const std::string& bus) {
  return std::string("exec env ASAN_OPTIONS=detect_leaks=0 ") + KOVACTL_PROGRAM + " --bus " + bus +
         " bridge";
}

}  // namespace kova::ctl::testing
