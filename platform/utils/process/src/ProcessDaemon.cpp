#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <map>

#include "ProgramLimits.h"
#include "Spawn.h"
#include "Supervisor.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Process.h"

namespace kova::utils {
namespace {

constexpr char kLogIdentity[] = "kova_utils";
constexpr char kLogUnit[] = "Process";

/// The background programs, by path. Destroying a supervisor, as at exit, kills its program.
using Leashes = std::multimap<std::string, Leash>;

Leashes& leashes() {
  static Leashes all;
  return all;
}

void release(Leashes::node_type entry, const char* operation) {
  const std::string& program = entry.key();
  Leash& leash = entry.mapped();
  const bool held = leash.holds();
  leash.letGo();
  if (leash.expired()) {
    KOVA_LOG_IN(operation, LOG_WARNING, 0, "%s exceeded its time", program.c_str());
  } else if (held) {
    KOVA_LOG_IN(operation, LOG_WARNING, 0, "%s was still running and was ended", program.c_str());
  }
}

void forgetEnded() {
  for (auto next = leashes().begin(); next != leashes().end();) {
    const auto entry = next++;
    if (!entry->second.holds()) release(leashes().extract(entry), "runDaemon");
  }
}

}  // namespace

bool runDaemon(const std::string* workingDirectory, const sigset_t* signalMask, int* pid,
               const std::string& program, int argc, ...) {
  std::vector<std::string> arguments;
  arguments.reserve(static_cast<std::size_t>(std::max(argc, 0)));
  va_list words;
  va_start(words, argc);
  for (int i = 0; i < argc; ++i) arguments.emplace_back(va_arg(words, const char*));
  va_end(words);

  forgetEnded();
  Spawn spawn(program, arguments, {});
  spawn.ownSession();
  if (workingDirectory != nullptr) spawn.workingDirectory(*workingDirectory);
  if (signalMask != nullptr) spawn.signalMask(*signalMask);
  Leash leash;
  pid_t started = -1;
  if (const int error = leash.start(spawn, timeLimit(program, 0), &started); error != 0) {
    errno = error;
    return false;
  }
  leashes().emplace(program, std::move(leash));
  if (pid != nullptr) *pid = started;
  return true;
}

void endDaemon(const std::string& program) {
  while (auto entry = leashes().extract(program)) release(std::move(entry), __func__);
}

}  // namespace kova::utils
