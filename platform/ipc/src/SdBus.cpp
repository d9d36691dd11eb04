#include "SdBus.h"

#include <cstdlib>
#include <cstring>

#include "Protocol.h"
#include "kova/logger/Logger.h"

namespace kova::ipc {
namespace {

constexpr char kLogIdentity[] = "kova_ipc";
constexpr char kLogUnit[] = "SdBus";

constexpr std::uint64_t kPatienceMs = 5000;
// A transport program (unixexec:) may first prompt for a password.
constexpr std::uint64_t kProgramPatienceMs = 90000;

std::string busAddress() {
  const char* address = std::getenv(kAddressVariable);
  return address != nullptr && *address != '\0' ? address : kDefaultAddress;
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

bool succeeded(int result, const char* what, std::string& error) {
  if (result >= 0) {
    return true;
  }
  error = explain(what, result);
  return false;
}

BusPtr openBus(bool monitor, std::string& error) {
  BusPtr bus;
  const std::string address = busAddress();
  const bool isProgram = address.starts_with("unixexec:");
  const std::uint64_t patienceMs = isProgram ? kProgramPatienceMs : kPatienceMs;
  int result = utils::openBus(address, monitor, patienceMs, bus);
  if (result >= 0) {
    result = sd_bus_set_method_call_timeout(bus.get(), kPatienceMs * 1000);
  }
  return succeeded(result, ("Unable to join the bus at " + address).c_str(), error) ? std::move(bus)
                                                                                    : nullptr;
}

}  // namespace kova::ipc
