#include "StopSignals.h"

#include <signal.h>

namespace kova::ctl {
namespace {

volatile sig_atomic_t received = 0;

void remember(int signal) {
  received = signal;
}

}  // namespace

void catchStopSignals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
      action = {};
      action.sa_handler = remember;  // without SA_RESTART: reads and polls end
      sigaction(signal, &action, nullptr);
    }
  }
}

bool stopRequested() {
  return received != 0;
}

Exit stopStatus() {
  return received == SIGINT ? Exit::Interrupted : Exit::Terminated;
}

}  // namespace kova::ctl
