#include "kova/utils/SdBus.h"

#include <poll.h>

#include <cerrno>

#include "kova/utils/Clock.h"

namespace kova::utils {
namespace {

int start(sd_bus* bus, const std::string& address, bool monitor) {
  for (const int result :
       {sd_bus_set_address(bus, address.c_str()), sd_bus_set_bus_client(bus, 1),
        sd_bus_set_monitor(bus, monitor ? 1 : 0), sd_bus_negotiate_fds(bus, 0)}) {
    if (result < 0) {
      return result;
    }
  }
  return sd_bus_start(bus);
}

// Unlike sd_bus_wait(), fails with EINTR on a signal.
int awaitEvent(sd_bus* bus, std::uint64_t timeoutMs) {
  pollfd socket{sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0};
  return poll(&socket, 1, static_cast<int>(timeoutMs));
}

// sd_bus_call() would wait for the handshake, too, but without a time-out and regardless of
// signals.
int awaitReady(sd_bus* bus, std::uint64_t patienceMs) {
  const std::uint64_t deadline = nowMs() + patienceMs;
  while (sd_bus_is_ready(bus) == 0) {
    const int result = sd_bus_process(bus, nullptr);
    if (result < 0) {
      return result;
    }
    const std::uint64_t now = nowMs();
    if (now >= deadline) {
      return -ETIMEDOUT;
    }
    if (result == 0 && awaitEvent(bus, deadline - now) < 0) {
      return -errno;
    }
  }
  return 0;
}

}  // namespace

int openBus(const std::string& address, bool monitor, std::uint64_t patienceMs, BusPtr& bus) {
  sd_bus* created = nullptr;
  int result = sd_bus_new(&created);
  if (result < 0) {
    return result;
  }
  bus.reset(created);
  result = start(created, address, monitor);
  return result < 0 ? result : awaitReady(created, patienceMs);
}

}  // namespace kova::utils
