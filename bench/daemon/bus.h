#pragma once

#include <kova_sd_bus.h>

#include <chrono>
#include <cstdint>

#include "kova/utils/Handle.h"

/// Shared by the programs of the measurement: sd-bus handles and error handling.
namespace bench {

using BusPtr = kova::utils::Handle<sd_bus, sd_bus_close_unref>;
using MessagePtr = kova::utils::Handle<sd_bus_message, sd_bus_message_unref>;

using Clock = std::chrono::steady_clock;

/// Ends a failed measurement: prints `what` and `why` to standard error and exits with status 1.
[[noreturn]] void giveUp(const char* what, const char* why);

/// Gives up on `what` if `result` is a negative errno value.
/// @return result
int check(int result, const char* what);

/// Joins the bus at KOVA_BUS_ADDRESS, or gives up.
BusPtr joinBus();

/// Processes messages until `done` returns true.
/// @return false if the deadline passes first
template <typename Done>
bool serveUntil(sd_bus* bus, Clock::time_point deadline, Done done) {
  while (!done()) {
    if (check(sd_bus_process(bus, nullptr), "handling messages") > 0) {
      continue;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      return false;
    }
    check(sd_bus_wait(bus, static_cast<std::uint64_t>(left)), "waiting for messages");
  }
  return true;
}

}  // namespace bench
