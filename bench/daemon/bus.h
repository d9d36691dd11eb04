#pragma once

#include <kova_sd_bus.h>

#include <chrono>
#include <cstdint>

#include "kova/utils/Handle.h"

/// What the programs of the measurement share: owned sd-bus handles and one way to give up.
namespace bench {

using BusPtr = kova::utils::Handle<sd_bus, sd_bus_close_unref>;
using MessagePtr = kova::utils::Handle<sd_bus_message, sd_bus_message_unref>;

using Clock = std::chrono::steady_clock;

/// Ends the program with status 1 and `what` on standard error, which is how a measurement that
/// cannot be made shows.
[[noreturn]] void giveUp(const char* what, const char* why);

/// Gives up, naming `what`, when `result` is a negative errno value.
/// @return result
int check(int result, const char* what);

/// Joins the bus at KOVA_BUS_ADDRESS, or gives up.
BusPtr joinBus();

/// Handles what comes in until `done` says so.
/// @return false when the deadline came first
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
