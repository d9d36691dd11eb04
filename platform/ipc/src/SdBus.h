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

/// Maximum number of messages handled in one pass of Service(): enough for one from every client.
inline constexpr int kMaxMessages = 128;

/// Converts a string returned by sd-bus, which is null for a field that the message lacks.
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

/// Fails a call for which no error is set yet.
inline int failed(sd_bus_error* error) {
  return sd_bus_error_set_const(error, SD_BUS_ERROR_FAILED, "internal error");
}

/// A sd_bus_message_handler_t that calls `kMethod` of the object registered as its user data. An
/// exception becomes org.freedesktop.DBus.Error.Failed.
template <auto kMethod>
int callback(sd_bus_message* message, void* owner, sd_bus_error* error) noexcept {
  constexpr int kThrew = std::numeric_limits<int>::min();
  const int result = guarded("callback", kThrew, [=] {
    using Owner = typename OwnerOf<decltype(kMethod)>::Type;
    return (static_cast<Owner*>(owner)->*kMethod)(message, error);
  });
  return result != kThrew ? result : failed(error);
}

/// Calls `process`, which handles a message, until none is pending, at most kMaxMessages times.
/// @return number of messages, or a negative errno value
template <typename Process>
int drain(Process process) {
  for (int handled = 0; handled < kMaxMessages; ++handled) {
    const int result = process();
    if (result <= 0) {
      return result < 0 ? result : handled;
    }
  }
  return kMaxMessages;
}

/// Calls `drainAll` to handle pending messages. If there were none, waits up to `timeoutMs` and
/// calls it again.
/// @return the last result of `drainAll`
template <typename DrainAll>
int drainOrWait(sd_bus* bus, unsigned timeoutMs, DrainAll drainAll) {
  int handled = drainAll();
  if (handled == 0 && timeoutMs > 0) {
    // A signal or a failure ends the wait early; `drainAll` then reports a failure.
    static_cast<void>(sd_bus_wait(bus, std::uint64_t{timeoutMs} * 1000));
    handled = drainAll();
  }
  return handled;
}

/// Number of messages in the send queue.
inline std::uint64_t unsentMessages(sd_bus* bus) {
  std::uint64_t unsent{};
  sd_bus_get_n_queued_write(bus, &unsent);
  return unsent;
}

/// Connects to the bus at KOVA_BUS_ADDRESS, else to the default one, and waits a bounded time for
/// the handshake. Blocking calls on this connection have the same bound.
/// @param monitor whether to receive messages to other endpoints too
/// @param error   receives the reason on failure
/// @return null on failure
BusPtr openBus(bool monitor, std::string& error);

/// "WHAT: ERROR" for a negative sd-bus result.
std::string explain(const char* what, int result);
/// Whether an sd-bus result is not negative. If it is, sets `error` to the text of explain().
bool succeeded(int result, const char* what, std::string& error);

}  // namespace kova::ipc
