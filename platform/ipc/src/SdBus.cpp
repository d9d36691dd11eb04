#include "SdBus.h"

#include <poll.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Protocol.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"

namespace kova::ipc {
namespace {

constexpr char kLogIdentity[] = "kova_ipc";
constexpr char kLogUnit[] = "SdBus";

constexpr std::uint64_t kPatienceMs = 5000;
// A program that carries the connection may first have to ask a person for a password.
constexpr std::uint64_t kProgramPatienceMs = 90000;

std::string busAddress() {
  const char* address = std::getenv(kAddressVariable);
  return address != nullptr && *address != '\0' ? address : kDefaultAddress;
}

int start(sd_bus* bus, const std::string& address, bool monitor) {
  int result = sd_bus_set_address(bus, address.c_str());
  if (result >= 0) {
    result = sd_bus_set_bus_client(bus, 1);
  }
  if (result >= 0) {
    result = sd_bus_set_monitor(bus, monitor ? 1 : 0);
  }
  if (result >= 0) {
    result = sd_bus_negotiate_fds(bus, 0);
  }
  if (result >= 0) {
    result = sd_bus_set_method_call_timeout(bus, kPatienceMs * 1000);
  }
  return result >= 0 ? sd_bus_start(bus) : result;
}

// Unlike sd_bus_wait() it tells of a signal.
int awaitEvent(sd_bus* bus, std::uint64_t timeoutMs) {
  pollfd socket{sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0};
  return poll(&socket, 1, static_cast<int>(timeoutMs)) < 0 ? -errno : 0;
}

// sd_bus_call() would wait for the handshake too, but without a time limit, and whatever signals
// arrive.
int awaitReady(sd_bus* bus, std::uint64_t patienceMs) {
  const std::uint64_t deadline = utils::nowMs() + patienceMs;
  while (sd_bus_is_ready(bus) == 0) {
    const int result = sd_bus_process(bus, nullptr);
    if (result < 0) {
      return result;
    }
    const std::uint64_t now = utils::nowMs();
    if (now >= deadline) {
      return -ETIMEDOUT;
    }
    if (result == 0) {
      const int waited = awaitEvent(bus, deadline - now);
      if (waited < 0) {
        return waited;
      }
    }
  }
  return 0;
}

}  // namespace

void logException(const char* where, const char* what) noexcept {
  try {
    KOVA_LOG_IN(where, LOG_ERR, 0, "Stopped an exception: %s", what);
  } catch (...) {
    // Nothing more can be reported.
    return;
  }
}

std::string explain(const char* what, int result) {
  return std::string(what) + ": " + std::strerror(-result);
}

BusPtr openBus(bool monitor, std::string& error) {
  sd_bus* created = nullptr;
  int result = sd_bus_new(&created);
  BusPtr bus(created);
  const std::string address = busAddress();
  const bool isProgram = address.starts_with("unixexec:");
  if (result >= 0) {
    result = start(bus.get(), address, monitor);
  }
  if (result >= 0) {
    result = awaitReady(bus.get(), isProgram ? kProgramPatienceMs : kPatienceMs);
  }
  if (result < 0) {
    error = explain(("Unable to join the bus at " + address).c_str(), result);
    return nullptr;
  }
  return bus;
}

}  // namespace kova::ipc
