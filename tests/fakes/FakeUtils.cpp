#include <cstdarg>

#include "Platform.h"
#include "kova/network/Network.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Crash.h"
#include "kova/utils/Process.h"
#include "kova/utils/Service.h"
#include "kova/utils/ServiceManager.h"
#include "kova/utils/System.h"
#include "kova/utils/TimeZone.h"

using kova::fakes::platform;

namespace kova::utils {

std::uint64_t nowMs() {
  return platform().nowMs;
}

void sleepMs(int milliseconds) {
  platform().note("sleep " + std::to_string(milliseconds));
  if (milliseconds > 0) {
    platform().nowMs += static_cast<std::uint64_t>(milliseconds);
  }
  if (--platform().sleepsLeft < 0) {
    throw fakes::EndlessWait();
  }
  if (platform().onSleep) {
    platform().onSleep(milliseconds);
  }
}

timeval now() {
  return {static_cast<time_t>(platform().nowMs / 1000), 0};
}

namespace {

/// @param terms recorded after the command if the run differs from the defaults
fakes::ProcessResult runRecorded(const std::string& program,
                                 const std::vector<std::string>& arguments,
                                 const std::string& terms = "") {
  std::string command = program;
  for (const auto& argument : arguments) {
    command += " " + argument;
  }
  platform().commands.push_back(command + terms);
  platform().note("run " + command + terms);
  return platform().onRun ? platform().onRun(command) : fakes::ProcessResult{};
}

}  // namespace

int sysExec(const std::string& program, const std::vector<std::string>& arguments,
            const std::string& input, std::string& out, std::string& err, unsigned timeoutMs,
            unsigned graceMs, unsigned captureKiB) {
  platform().captures.push_back({input, timeoutMs, graceMs, captureKiB});
  auto result = runRecorded(program, arguments);
  out = result.out.substr(0, captureKiB * 1024UL);
  err = result.err.substr(0, captureKiB * 1024UL);
  return result.status;
}

int sysExecArguments(const char* program, const std::vector<std::string>& arguments) {
  return runRecorded(program, arguments).status;
}

bool runDaemon(const std::string* workingDirectory, const sigset_t* signalMask, int* pid,
               const std::string& program, int argc, ...) {
  std::vector<std::string> arguments;
  va_list list;
  va_start(list, argc);
  for (int i = 0; i < argc; ++i) {
    arguments.emplace_back(va_arg(list, const char*));
  }
  va_end(list);
  std::string terms;
  if (workingDirectory != nullptr) {
    terms += " (in " + *workingDirectory + ")";
  }
  if (signalMask != nullptr) {
    terms += " (signals blocked)";
  }
  if (pid != nullptr) {
    terms += " (process id wanted)";
  }
  if (runRecorded(program, arguments, terms).status != 0) {
    return false;
  }
  auto& background = platform().background;
  const int id = background.empty() ? 4242 : background.rbegin()->first + 1;
  background.emplace(id, program);
  if (pid != nullptr) {
    *pid = id;
  }
  return true;
}

void endDaemon(const std::string& program) {
  platform().note("endDaemon " + program);
  std::erase_if(platform().background, [&](const auto& entry) { return entry.second == program; });
  if (platform().onEndDaemon) {
    platform().onEndDaemon(program);
  }
}

int kill_process_by_name(const std::string& name, int signal) {
  platform().signalled.push_back(name + " " + std::to_string(signal));
  platform().note("kill " + name + " " + std::to_string(signal));
  return 1;
}

bool EnableService(const std::string& name) {
  platform().note("EnableService " + name);
  return !platform().onService || platform().onService("start", name);
}

bool DisableService(const std::string& name) {
  platform().note("DisableService " + name);
  return !platform().onService || platform().onService("stop", name);
}

void notifyReady() {
  platform().notified.emplace_back("ready");
}

void notifyAlive() {
  if (platform().notified.empty() || platform().notified.back() != "alive") {
    platform().notified.emplace_back("alive");
  }
}

void sleepAliveMs(int milliseconds) {
  sleepMs(milliseconds);
}

std::string firmwareVersion() {
  return "1.2.3";
}

std::string bootId() {
  return "boot-id";
}

bool setTimeZone(const std::string& zone) {
  platform().note("setTimeZone " + zone);
  return platform().setTimeZoneResult;
}

bool InstallCrashDumpHandler(const char*) {
  platform().note("InstallCrashDumpHandler");
  return platform().crashHandlerResult;
}

void forceCrash() {
  platform().note("forceCrash");
  throw fakes::ForcedCrash();
}

}  // namespace kova::utils

namespace kova::network {

std::string guessDefaultInterface() {
  return platform().stats.defaultInterface;
}

}  // namespace kova::network
