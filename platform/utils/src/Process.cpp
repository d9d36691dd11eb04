#include "kova/utils/Process.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>

#include "Pipe.h"
#include "Spawn.h"

namespace kova::utils {
namespace {

struct StartReport {
  int error;
  pid_t pid;
};

/// The body of the process between the caller and the daemon: its end makes the daemon init's
/// child.
[[noreturn]] void startAndEnd(Spawn& spawn, int reportTo) {
  StartReport report{0, -1};
  report.error = spawn.Start(&report.pid);
  const ssize_t put = write(reportTo, &report, sizeof report);
  _exit(put == sizeof report ? 0 : 1);
}

StartReport awaitReport(int fd) {
  StartReport report{ECHILD, -1};
  ssize_t got = 0;
  do {
    got = read(fd, &report, sizeof report);
  } while (got < 0 && errno == EINTR);
  return got == sizeof report ? report : StartReport{ECHILD, -1};
}

/// Starts a process that is no child of this one, so that nobody here has to reap it.
StartReport startDetached(Spawn& spawn) {
  Pipe pipe;
  if (!pipe.Open()) return {errno, -1};
  const pid_t middle = fork();
  if (middle < 0) return {errno, -1};
  if (middle == 0) startAndEnd(spawn, pipe.write.Get());
  pipe.write.Reset();
  const StartReport report = awaitReport(pipe.read.Get());
  waitFor(middle, nullptr, 0);
  return report;
}

}  // namespace

int sysExecArguments(const char* program, const std::vector<std::string>& arguments) {
  Spawn spawn(program, arguments, {});
  pid_t child = -1;
  if (const int error = spawn.Start(&child); error != 0) {
    errno = error;
    return kNotStarted;
  }
  int status = 0;
  return waitFor(child, &status, 0) == child ? exitStatus(status) : kNotStarted;
}

bool runDaemon(const std::string* workingDirectory, const sigset_t* signalMask, int* pid,
               const std::string& program, int argc, ...) {
  std::vector<std::string> arguments;
  arguments.reserve(static_cast<std::size_t>(std::max(argc, 0)));
  va_list words;
  va_start(words, argc);
  for (int i = 0; i < argc; ++i) arguments.emplace_back(va_arg(words, const char*));
  va_end(words);

  Spawn spawn(program, arguments, {});
  spawn.OwnSession();
  if (workingDirectory != nullptr) spawn.WorkingDirectory(*workingDirectory);
  if (signalMask != nullptr) spawn.SignalMask(*signalMask);
  const StartReport report = startDetached(spawn);
  if (report.error != 0) {
    errno = report.error;
    return false;
  }
  if (pid != nullptr) *pid = report.pid;
  return true;
}

}  // namespace kova::utils
