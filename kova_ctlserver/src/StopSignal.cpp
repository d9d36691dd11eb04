#include "StopSignal.h"

#include <csignal>

namespace kova::ctlserver {
namespace {

volatile std::sig_atomic_t signalled = 0;

}  // namespace

void noteStopSignal(int) {
  signalled = 1;
}

bool stopSignalled() {
  return signalled != 0;
}

}  // namespace kova::ctlserver
