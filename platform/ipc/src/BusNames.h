#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "SdBus.h"

namespace kova::ipc {

/// The endpoint that a bus name belongs to: "kova.E" gives "E", any other name "".
std::string endpointOf(const char* busName);

/// The names on the bus, without the bus's own unique names.
/// @return false, with the reason in `error`, if the bus cannot tell
bool listNames(sd_bus* bus, std::vector<std::string>& names, std::string& error);

/// Tracks which endpoints are on the bus.
class PresentEndpoints {
 public:
  /// @param appeared called with every endpoint that joins later
  explicit PresentEndpoints(std::function<void(const std::string&)> appeared)
      : appeared_(std::move(appeared)) {}
  PresentEndpoints(const PresentEndpoints&) = delete;
  PresentEndpoints& operator=(const PresentEndpoints&) = delete;

  /// Starts tracking; call it once.
  bool watch(sd_bus* bus, std::string& error);
  bool has(const std::string& endpoint) const { return present_.contains(endpoint); }

 private:
  int onOwnerChanged(sd_bus_message* signal, sd_bus_error* error);

  std::function<void(const std::string&)> appeared_;
  std::set<std::string> present_;
  SlotPtr slot_;
};

}  // namespace kova::ipc
