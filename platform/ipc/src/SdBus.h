#pragma once

#include <kova_sd_bus.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include "kova/utils/ExceptionBarrier.h"
#include "kova/utils/SdBus.h"

/// Exception barriers for the callbacks of sd-bus, and the function that joins the camera's bus.
namespace kova::ipc {

using utils::BusError;
using utils::BusPtr;
using utils::MessagePtr;
using utils::SlotPtr;

/// Messages handled in one pass of a Service(): enough for one of every client.
inline constexpr int kMaxMessages = 128;

/// What sd-bus returns as a string, which is null for a field that the message lacks.
inline std::string orEmpty(const char* maybe) {
  return maybe != nullptr ? maybe : "";
}

void logException(const char* where, const char* what) noexcept;

/// Runs `function`; an exception is logged under `where` and becomes `failure`.
template <typename Result, typename Function>
Result guarded(const char* where, Result failure, Function&& function) noexcept {
  return utils::exceptionBarrier(failure, std::forward<Function>(function),
                                 [where](const char* what) { logException(where, what); });
}

/// The same for a function that returns whether it succeeded.
template <typename Function>
bool guarded(const char* where, Function&& function) noexcept {
  return guarded(where, false, std::forward<Function>(function));
}

template <typename Method>
struct OwnerOf;
template <typename Class>
struct OwnerOf<int (Class::*)(sd_bus_message*, sd_bus_error*)> {
  using Type = Class;
};

/// A sd_bus_message_handler_t that calls `kMethod` of the object registered as its user data. An
/// exception becomes org.freedesktop.DBus.Error.Failed.
template <auto kMethod>
int callback(sd_bus_message* message, void* owner, sd_bus_error* error) noexcept {
  constexpr int kThrew = std::numeric_limits<int>::min();
  const int result = guarded("callback", kThrew, [=] {
    using Owner = typename OwnerOf<decltype(kMethod)>::Type;
    return (static_cast<Owner*>(owner)->*kMethod)(message, error);
  });
  if (result != kThrew) {
    return result;
  }
  sd_bus_error_free(error);
  return sd_bus_error_set_const(error, SD_BUS_ERROR_FAILED, "internal error");
}

/// Connects to the bus at KOVA_BUS_ADDRESS, else to the default one, and waits a bounded time for
/// the handshake. Blocking calls on this connection have the same bound.
/// @param monitor whether to receive messages to other endpoints too
/// @param error   receives what went wrong
/// @return null on failure
BusPtr openBus(bool monitor, std::string& error);

/// "WHAT: ERROR" for a negative sd-bus result.
std::string explain(const char* what, int result);

}  // namespace kova::ipc
