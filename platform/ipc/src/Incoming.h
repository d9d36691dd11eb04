#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "SdBus.h"
#include "kova/messages/BaseMessage.h"

namespace kova::ipc {

class BaseHandler;

/// What arrives: takes calls and broadcasts off the bus, gives them to their handlers, and sees to
/// it that every call gets exactly one answer.
class Incoming {
 public:
  /// By function name; "" takes what no other is there for.
  using Handlers = std::map<std::string, BaseHandler*>;

  /// @param bus      must outlive this object, and so must the handlers
  /// @param endpoint what responses are sent from
  Incoming(sd_bus* bus, std::string endpoint, const Handlers& handlers)
      : bus_(bus), endpoint_(std::move(endpoint)), handlers_(handlers) {}

  Incoming(const Incoming&) = delete;
  Incoming& operator=(const Incoming&) = delete;

  /// Serves the object from now on, and listens to broadcasts if wanted; call it once.
  bool Serve(bool receiveBroadcasts, std::string& error);
  /// Ipc::SendResponse.
  bool Respond(messages::BaseRequestMessage& request, messages::BaseResponseMessage& response);

 private:
  /// The call that is being handled.
  struct Exchange {
    sd_bus_message* call;
    std::uint64_t requestId;
    enum class State { Open, Answered, Unanswerable } state = State::Open;
  };
  enum class Outcome { Taken, Unknown, Failed };

  int OnCall(sd_bus_message* call, sd_bus_error* error);
  int OnBroadcast(sd_bus_message* signal, sd_bus_error* error);
  Outcome Handle(messages::BaseRequestMessage& request);
  Outcome HandleGuarded(messages::BaseRequestMessage& request);
  int Conclude(const Exchange& exchange, Outcome outcome, sd_bus_error* error);
  BaseHandler* HandlerOf(const std::string& functionName) const;

  sd_bus* bus_;
  std::string endpoint_;
  const Handlers& handlers_;
  std::string uniqueName_;
  Exchange* current_ = nullptr;
  std::vector<SlotPtr> slots_;
};

}  // namespace kova::ipc
