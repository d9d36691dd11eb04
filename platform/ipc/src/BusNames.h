#pragma once

#include <functional>
#include <list>
#include <set>
#include <string>

#include "SdBus.h"

namespace kova::ipc {

/// The endpoint that a bus name belongs to: "kova.E" gives "E", any other name "".
std::string endpointOf(const char* busName);

/// The endpoints on the bus.
/// @return false, with the reason in `error`, on failure
bool listEndpoints(sd_bus* bus, std::set<std::string>& endpoints, std::string& error);

/// Reads a NameOwnerChanged of the bus.
/// @param name  receives the name that was acquired or released
/// @param owner receives the unique name of its owner, or ""
bool readOwnerChange(sd_bus_message* signal, const char*& name, const char*& owner);

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
  /// Asks the bus, asynchronously, whether an endpoint has joined unnoticed. The bus drops signals
  /// to a process whose queue is full because it has not read for a while.
  void verify(const std::string& endpoint);

 private:
  static constexpr std::size_t kMaxQuestions = 64;

  /// A pending NameHasOwner call.
  struct Question {
    PresentEndpoints& owner;
    std::string endpoint;
    std::list<Question>::iterator self{};

    int onAnswer(sd_bus_message* answer, sd_bus_error* error);
  };

  int onOwnerChanged(sd_bus_message* signal, sd_bus_error* error);
  void add(const std::string& endpoint);

  std::function<void(const std::string&)> appeared_;
  std::set<std::string> present_;
  std::list<Question> questions_;
  sd_bus* bus_ = nullptr;
};

}  // namespace kova::ipc
