#include <sys/time.h>

#include "../Answer.h"
#include "../Command.h"
#include "../MessageLine.h"
#include "../StopSignals.h"

namespace kova::ctl {
namespace {

timeval now() {
  timeval time{};
  gettimeofday(&time, nullptr);
  return time;
}

Exit run(const Options& options) {
  ipc::BusMonitor monitor;
  std::string error;
  if (!monitor.Open(error)) {
    return fail(Exit::Unreachable, "cannot monitor the bus: " + error);
  }
  Exit shown = Exit::Ok;
  const auto print = [&](const ipc::SeenMessage& seen) {
    const timeval when = now();
    if (shown == Exit::Ok) {
      shown = show((options.json ? messageJson(seen, when) : messageLine(seen, when)) + "\n");
    }
  };
  while (shown == Exit::Ok) {
    constexpr unsigned kSliceMs = 100;
    if (stopRequested()) {
      return stopStatus();
    }
    if (!monitor.Service(kSliceMs, print)) {
      return fail(Exit::Unreachable, "the bus has gone away");
    }
  }
  return shown;
}

}  // namespace

Action setUpMonitor(CommandLine& line) {
  line.Footer(
      "One line a message: time, sender -> destination, function and fields; \"*\" is everybody.\n"
      "Passwords are masked. Needs root. Ctrl-C ends it (status 130).\n");
  return run;
}

}  // namespace kova::ctl
