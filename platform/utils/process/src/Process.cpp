#include "kova/utils/Process.h"

#include <algorithm>
#include <cerrno>

#include "Errno.h"
#include "ProgramLimits.h"
#include "RunToEnd.h"
#include "Spawn.h"
#include "Watchdog.h"
#include "kova/utils/Clock.h"
#include "kova/utils/ServiceManager.h"

namespace kova::utils {
namespace {

// Upper bound of the delay in noticing the child's exit.
constexpr int kLongestStepMs = 16;

}  // namespace

int runToEnd(const std::string& program, const std::vector<std::string>& arguments,
             unsigned limitMs, unsigned graceMs) {
  Spawn spawn(program, arguments, {});
  spawn.ownGroup();
  ErrnoGuard reason;
  pid_t child = -1;
  if (const int error = spawn.start(&child); error != 0) {
    reason.set(error);
    return kNotStarted;
  }
  Watchdog watchdog(child, program, limitMs, graceMs);
  int status = 0;
  pid_t ended = 0;
  int step = 1;
  while ((ended = watchdog.end(&status)) == 0) {
    watchdog.check();
    notifyAlive();
    sleepMs(watchdog.pollTimeout(step));
    step = std::min(step * 2, kLongestStepMs);
  }
  if (watchdog.expired()) reason.set(ETIMEDOUT);
  return ended == child ? exitStatus(status) : kNotStarted;
}

int sysExecArguments(const char* program, const std::vector<std::string>& arguments) {
  return runToEnd(program, arguments, timeLimit(program, 0), kGraceMs);
}

}  // namespace kova::utils
