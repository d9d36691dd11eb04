#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <string>

/// Ownership of sd-bus handles, the exception barrier, and the one way to open a connection.
namespace kova::ipc {

template <auto Function>
struct Release {
  template <typename Handle>
  void operator()(Handle* handle) const {
    Function(handle);
  }
};

using BusPtr = std::unique_ptr<sd_bus, Release<sd_bus_close_unref>>;
using MessagePtr = std::unique_ptr<sd_bus_message, Release<sd_bus_message_unref>>;
using SlotPtr = std::unique_ptr<sd_bus_slot, Release<sd_bus_slot_unref>>;

struct BusError {
  BusError() = default;
  ~BusError() { sd_bus_error_free(&value); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;

  sd_bus_error value{};
};

void logException(const char* where, const char* what) noexcept;

/// Runs `function`. What it throws ends here: it is logged under `where` and becomes `failure`.
template <typename Result, typename Function>
Result guarded(const char* where, Result failure, Function&& function) noexcept {
  try {
    return function();
  } catch (const std::exception& exception) {
    logException(where, exception.what());
  } catch (...) {
    logException(where, "exception of an unknown type");
  }
  return failure;
}

template <typename Method>
struct OwnerOf;
template <typename Class>
struct OwnerOf<int (Class::*)(sd_bus_message*, sd_bus_error*)> {
  using Type = Class;
};

/// A sd_bus_message_handler_t that calls `Method` of the object registered as its user data. An
/// exception becomes org.freedesktop.DBus.Error.Failed.
template <auto Method>
int callback(sd_bus_message* message, void* owner, sd_bus_error* error) noexcept {
  constexpr int kThrew = std::numeric_limits<int>::min();
  const int result = guarded("callback", kThrew, [=] {
    using Owner = typename OwnerOf<decltype(Method)>::Type;
    return (static_cast<Owner*>(owner)->*Method)(message, error);
  });
  if (result != kThrew) {
    return result;
  }
  sd_bus_error_free(error);
  return sd_bus_error_set_const(error, SD_BUS_ERROR_FAILED, "internal error");
}

/// Connects to the bus at KOVA_BUS_ADDRESS, else the default one, and waits a bounded time until
/// the bus has let us in. Calls that wait on this connection are bounded likewise.
/// @param monitor whether messages to others are to be taken too
/// @param error   receives what went wrong
/// @return null on failure
BusPtr openBus(bool monitor, std::string& error);

/// "WHAT: errno text" of a negative sd-bus result.
std::string explain(const char* what, int result);

}  // namespace kova::ipc
