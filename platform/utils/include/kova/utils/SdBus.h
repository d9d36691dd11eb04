#pragma once

#include <kova_sd_bus.h>

#include <cstdint>
#include <string>

#include "kova/utils/Handle.h"

/// Owners of sd-bus handles, and the function that opens a connection.
namespace kova::utils {

using BusPtr = Handle<sd_bus, sd_bus_close_unref>;
using MessagePtr = Handle<sd_bus_message, sd_bus_message_unref>;
using SlotPtr = Handle<sd_bus_slot, sd_bus_slot_unref>;

struct BusError {
  BusError() = default;
  ~BusError() { sd_bus_error_free(&value); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;

  sd_bus_error value{};
};

/// Connects to the bus at `address` and waits up to `patienceMs` for the handshake.
/// @param monitor whether to receive messages to other endpoints too
/// @param bus     receives the connection
/// @return a negative errno value on failure
int openBus(const std::string& address, bool monitor, std::uint64_t patienceMs, BusPtr& bus);

}  // namespace kova::utils
