#include "Terminal.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>

#include "Text.h"

namespace kova::ctl {
namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

volatile sig_atomic_t receivedSignal = 0;

void remember(int signal) {
  receivedSignal = signal;
}

}  // namespace

void catchStopSignals() {
  for (const int signal : kStopSignals) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
      action = {};
      action.sa_handler = remember;  // no SA_RESTART: interrupts reads and polls
      sigaction(signal, &action, nullptr);
    }
  }
}

bool stopRequested() {
  return receivedSignal != 0;
}

StopSignalsBlocked::StopSignalsBlocked() {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const int signal : kStopSignals) {
    sigaddset(&blocked, signal);
  }
  sigprocmask(SIG_BLOCK, &blocked, &before_);
}

StopSignalsBlocked::~StopSignalsBlocked() {
  sigprocmask(SIG_SETMASK, &before_, nullptr);
}

ExitStatus stopStatus() {
  return receivedSignal == SIGINT ? ExitStatus::Interrupted : ExitStatus::Terminated;
}

bool print(std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
         std::fflush(stdout) == 0;
}

bool inputIsTerminal() {
  return isatty(STDIN_FILENO) == 1;
}

bool outputIsTerminal() {
  return isatty(STDOUT_FILENO) == 1;
}

bool errorIsTerminal() {
  return isatty(STDERR_FILENO) == 1;
}

Size terminalSize() {
  return terminalSize(STDOUT_FILENO);
}

Size terminalSize(int stream) {
  winsize size{};
  if (ioctl(stream, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
    return {80, 24};
  }
  return {size.ws_col, size.ws_row};
}

std::size_t helpWidth() {
  constexpr std::size_t kNarrowest = 40;
  const char* variable = std::getenv("COLUMNS");
  const std::string_view text = variable != nullptr ? variable : "";
  std::size_t columns = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), columns);
  const bool isSet = parsed.ec == std::errc() && columns > 0;
  return std::max(isSet ? columns : terminalSize().columns, kNarrowest);
}

AlternateScreen::AlternateScreen() {
  print("\x1b[?1049h\x1b[?25l");
}

AlternateScreen::~AlternateScreen() {
  print("\x1b[?25h\x1b[?1049l");
}

bool AlternateScreen::show(std::string_view text) {
  const Size size = terminalSize();
  std::string frame = "\x1b[H";
  for (std::size_t line = 0; line < size.lines && !text.empty(); ++line) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    frame += line == 0 ? "" : "\r\n";
    frame += std::string(clip(text.substr(0, end), size.columns)) + "\x1b[K";
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return print(frame + "\x1b[J");
}

NoEcho::NoEcho() {
  if (tcgetattr(STDIN_FILENO, &saved_) == 0) {
    termios silent = saved_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    active_ = tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
  }
}

NoEcho::~NoEcho() {
  if (active_) {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
  }
}

bool readLine(std::string& line) {
  line.clear();
  // Byte by byte, to leave the next line unread.
  for (char c = '\0'; !stopRequested();) {
    const ssize_t got = read(STDIN_FILENO, &c, 1);
    if (got == 0 || (got < 0 && errno != EINTR)) {
      return got == 0 && !line.empty();
    }
    if (got == 1 && c == '\n') {
      return true;
    }
    if (got == 1) {
      line += c;
    }
  }
  return false;
}

bool ask(std::string_view prompt, std::string& answer) {
  std::fprintf(stderr, "%s", std::string(prompt).c_str());
  const bool got = readLine(answer);
  if (!got) {
    std::fputc('\n', stderr);
  }
  return got;
}

bool askSecret(std::string_view prompt, std::string& answer) {
  const NoEcho quiet;
  if (!quiet.active()) {
    return false;
  }
  std::fprintf(stderr, "%s", std::string(prompt).c_str());
  const bool got = readLine(answer);
  std::fputc('\n', stderr);
  return got;
}

}  // namespace kova::ctl
