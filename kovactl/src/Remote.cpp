#include "Remote.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "LineFilter.h"
#include "Output.h"
#include "Terminal.h"
#include "kova/utils/Strings.h"

namespace kova::ctl {
namespace {

constexpr std::size_t kMaxLength = 255;  // of a host name (RFC 1123)

// Exit statuses of ssh: its own failure, or that of the remote command or the remote shell.
constexpr int kSshMissing = 254;  // by becomeSsh()
constexpr int kSshFailed = 255;
constexpr int kCommandMissing = 127;
constexpr int kCommandNotRun = 126;
constexpr int kUnknown = -1;

volatile sig_atomic_t sshStatus = kUnknown;

// Signal handler: stores only the status.
void noteChild(int, siginfo_t* info, void*) {
  sshStatus = info->si_code == CLD_EXITED ? info->si_status : kUnknown;
}

bool isAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Whether a word of the ssh command line is a plain name: not an option, no shell metacharacters.
bool isName(std::string_view text, std::string_view others) {
  return !text.empty() && text.size() <= kMaxLength && text.front() != '-' &&
         std::ranges::all_of(
             text, [others](char c) { return isAlphanumeric(c) || others.find(c) != others.npos; });
}

bool isPort(std::string_view text) {
  unsigned port = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, port);
  return parsed.ec == std::errc() && parsed.ptr == end && port > 0 && port <= 65535;
}

// Splits "HOST", "HOST:PORT", "[ADDRESS]" and "[ADDRESS]:PORT".
bool splitPort(std::string_view text, std::string_view& host, std::string_view& port) {
  constexpr std::string_view kInNames = "._-";
  constexpr std::string_view kInAddresses = ".:%_-";
  const bool bracketed = text.starts_with('[');
  const std::size_t end = bracketed ? text.find(']') : text.find(':');
  host = text.substr(bracketed ? 1 : 0, end - (bracketed ? 1 : 0));
  const std::size_t colon = bracketed && end != text.npos ? end + 1 : end;
  port = colon < text.size() ? text.substr(colon) : "";
  return isName(host, bracketed ? kInAddresses : kInNames) && !(bracketed && end == text.npos) &&
         (port.empty() || (port.starts_with(':') && isPort(port.substr(1))));
}

// Quotes a word for the remote shell.
std::string quoted(const std::string& word) {
  if (isName(word, "._-/:=@")) {
    return word;
  }
  std::string text = "'";
  for (const char c : word) {
    text += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return text + "'";
}

// Escapes a value in a D-Bus address.
std::string escaped(std::string_view text) {
  constexpr std::string_view kPlain = "-_/.\\*";
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isAlphanumeric(c) || kPlain.find(c) != kPlain.npos) {
      result += c;
    } else {
      result += '%' + utils::hexadecimal({&byte, 1});
    }
  }
  return result;
}

[[noreturn]] void execute(const std::vector<std::string>& words) {
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (const std::string& word : words) {
    argv.push_back(const_cast<char*>(word.c_str()));
  }
  argv.push_back(nullptr);
  execvp(argv.front(), argv.data());
  _exit(kSshMissing);
}

std::string sshCommand(const std::string& text) {
  Remote remote;
  std::string error;
  parseRemote(text, remote, error);
  return "\"ssh " + (remote.port.empty() ? "" : "-p " + remote.port + " ") + remote.login + "\"";
}

std::string explainSsh(const std::string& text, int status) {
  switch (status) {
    case kSshMissing:
      return "cannot run ssh: install it (package openssh-client)";
    case kSshFailed:
      return "cannot log in to " + text + ", ssh says why above: " + sshCommand(text) +
             " must work first";
    case kCommandMissing:
    case kCommandNotRun:
      return "no kovactl on " + text + ": install the package kovactl there";
    case static_cast<int>(ExitStatus::Usage):
      return "kovactl on " + text + " is too old for this: update it";
    default:
      return "";
  }
}

/// An ssh process that runs a remote command, with its output on pipes.
class Ssh {
 public:
  explicit Ssh(const std::vector<std::string>& words);
  ~Ssh();
  Ssh(const Ssh&) = delete;
  Ssh& operator=(const Ssh&) = delete;

  /// Prints the output of ssh until it ends. Ends it with SIGTERM on a stop signal.
  /// @return false, with `errno` set, if it could not be run or waited for
  bool await(int& ended);
  /// Whether all output of the remote command could be printed.
  bool printed() const { return out_.good(); }

 private:
  static bool take(int& pipe, LineFilter& filter);
  bool pump(int timeoutMs);

  pid_t child_ = -1;
  int outPipe_ = -1;
  int errorPipe_ = -1;
  LineFilter out_{stdout};
  LineFilter error_{stderr};
};

Ssh::Ssh(const std::vector<std::string>& words) {
  int out[2] = {-1, -1};
  int error[2] = {-1, -1};
  if (pipe2(out, O_CLOEXEC) == 0 && pipe2(error, O_CLOEXEC) == 0) {
    child_ = fork();
  }
  if (child_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(error[1], STDERR_FILENO);
    execute(words);
  }
  const int problem = errno;  // of a failed pipe2() or fork(), for the caller of await()
  close(out[1]);
  close(error[1]);
  errno = problem;
  outPipe_ = out[0];
  errorPipe_ = error[0];
}

Ssh::~Ssh() {
  close(outPipe_);
  close(errorPipe_);
}

bool Ssh::take(int& pipe, LineFilter& filter) {
  char buffer[4096];
  const ssize_t got = read(pipe, buffer, sizeof buffer);
  if (got > 0) {
    filter.take({buffer, static_cast<std::size_t>(got)});
  } else if (got == 0) {
    close(pipe);
    pipe = -1;
  }
  return got > 0;
}

// Prints available output; false if there is none.
bool Ssh::pump(int timeoutMs) {
  pollfd pipes[] = {{outPipe_, POLLIN, 0}, {errorPipe_, POLLIN, 0}};
  if (poll(pipes, 2, timeoutMs) <= 0) {
    return false;
  }
  const bool printed = pipes[0].revents != 0 && take(outPipe_, out_);
  return (pipes[1].revents != 0 && take(errorPipe_, error_)) || printed;
}

bool Ssh::await(int& ended) {
  constexpr int kSliceMs = 20;  // upper bound of the delay of a stop signal or the end of ssh
  pid_t waited = child_ < 0 ? -1 : 0;
  while (waited == 0) {
    pump(kSliceMs);
    if (stopRequested() || !printed()) {
      kill(child_, SIGTERM);
    }
    waited = waitpid(child_, &ended, WNOHANG);
  }
  // Do not wait for EOF: a background process left by ssh may keep the pipes open. Drain what is
  // there, with a bound.
  constexpr int kMaxPieces = 256;
  for (int piece = 0; piece < kMaxPieces && pump(0); ++piece) {
  }
  out_.end();
  error_.end();
  return waited == child_ && child_ > 0;
}

}  // namespace

bool parseRemote(std::string_view text, Remote& remote, std::string& error) {
  const std::size_t at = text.rfind('@');
  const std::string_view user = at != text.npos ? text.substr(0, at) : "";
  std::string_view host;
  std::string_view port;
  if ((at != text.npos && !isName(user, "._-+")) ||
      !splitPort(at != text.npos ? text.substr(at + 1) : text, host, port)) {
    error = "\"" + std::string(text) +
            "\" is not a host: write [USER@]HOST[:PORT], with an IPv6 address in brackets";
    return false;
  }
  remote.login = std::string(text.substr(0, at != text.npos ? at + 1 : 0)) + std::string(host);
  remote.port = port.empty() ? "" : port.substr(1);
  return true;
}

std::vector<std::string> sshWords(const Remote& remote, const std::vector<std::string>& command) {
  std::vector<std::string> words{"ssh", "-xT"};
  if (!remote.port.empty()) {
    words.insert(words.end(), {"-p", remote.port});
  }
  words.insert(words.end(), {"--", remote.login, "kovactl"});
  std::ranges::transform(command, std::back_inserter(words), quoted);
  return words;
}

std::string remoteBusAddress(std::string_view text) {
  return "unixexec:path=/proc/self/exe,argv1=--host,argv2=" + escaped(text) + ",argv3=__ssh";
}

ExitStatus becomeSsh(const std::string& text) {
  Remote remote;
  std::string error;
  if (!parseRemote(text, remote, error)) {
    return fail(ExitStatus::Usage, error);
  }
  // Ctrl-C is for the process that uses the connection. SIG_IGN survives exec, and ssh keeps it.
  signal(SIGINT, SIG_IGN);
  execute(sshWords(remote, {"bridge"}));
}

ExitStatus runThere(const Options& options, std::vector<std::string> command) {
  Remote remote;
  std::string error;
  if (!parseRemote(options.host, remote, error)) {
    return fail(ExitStatus::Usage, error);
  }
  if (options.json) {
    command.emplace_back("--json");
  }
  Ssh ssh(sshWords(remote, command));
  int ended = 0;
  const bool ran = ssh.await(ended);
  if (stopRequested()) {
    return stopStatus();
  }
  if (!ran) {
    return fail(ExitStatus::Local, std::string("cannot run ssh: ") + std::strerror(errno));
  }
  if (!ssh.printed()) {
    return fail(ExitStatus::Local, "cannot write the output");
  }
  const int status = WIFEXITED(ended) ? WEXITSTATUS(ended) : kSshFailed;
  const bool isMisuse = status == static_cast<int>(ExitStatus::Usage);
  const std::string reason = isMisuse ? "" : explainSsh(options.host, status);
  if (!reason.empty()) {
    return fail(ExitStatus::Unreachable, reason);
  }
  const ExitMeaning* meaning = findMeaning(status);
  if (meaning == nullptr) {
    return fail(ExitStatus::Unreachable,
                "kovactl there ended with status " + std::to_string(status));
  }
  leaveToOther();  // the remote kovactl has reported everything
  return meaning->status;
}

void watchSsh() {
  struct sigaction action {};
  action.sa_sigaction = noteChild;
  action.sa_flags = SA_SIGINFO | SA_RESTART | SA_NOCLDSTOP;
  sigaction(SIGCHLD, &action, nullptr);
}

std::string explainRemote(const std::string& text, const std::string& problem) {
  if (sshStatus == static_cast<int>(ExitStatus::Unreachable)) {
    return "cannot use the bus of " + text + ": kovactl there says why above";
  }
  std::string reason = explainSsh(text, sshStatus);
  if (!reason.empty()) {
    return reason;
  }
  return problem.ends_with(std::strerror(ETIMEDOUT))
             ? text + " does not answer"
             : "the connection to " + text + " failed (" + problem +
                   "): does the shell there print something when it starts?";
}

}  // namespace kova::ctl
