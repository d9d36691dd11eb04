#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "SdBus.h"
#include "kova/messages/BaseMessage.h"

namespace kova::ipc {

class BaseHandler;

/// Dispatches calls and broadcasts from the bus to their handlers, and ensures that every call gets
/// exactly one answer.
class Incoming {
 public:
  /// By function name; "" handles every other function.
  using Handlers = std::map<std::string, BaseHandler*>;

  /// @param bus      must outlive this object, and so must the handlers
  /// @param endpoint sender of the responses
  Incoming(sd_bus* bus, std::string endpoint, const Handlers& handlers)
      : bus_(bus), endpoint_(std::move(endpoint)), handlers_(handlers) {}

  Incoming(const Incoming&) = delete;
  Incoming& operator=(const Incoming&) = delete;

  /// Starts serving the object and, if requested, receiving broadcasts; call it once.
  bool serve(bool receiveBroadcasts, std::string& error);
  /// Implements Ipc::SendResponse.
  bool respond(messages::BaseRequestMessage& request, messages::BaseResponseMessage& response);

 private:
  /// The call being handled. Unanswerable: the response could not be sent, so an error is due.
  struct Exchange {
    sd_bus_message* call;
    std::uint64_t requestId;
    enum class State { Open, Answered, Unanswerable } state = State::Open;
  };
  enum class Outcome { Taken, Unknown, Failed };

  int onCall(sd_bus_message* call, sd_bus_error* error);
  int onBroadcast(sd_bus_message* signal, sd_bus_error* error);
  Outcome handle(messages::BaseRequestMessage& request);
  Outcome handleGuarded(messages::BaseRequestMessage& request);
  int conclude(const Exchange& exchange, Outcome outcome, sd_bus_error* error);
  BaseHandler* handlerOf(const std::string& functionName) const;

  sd_bus* bus_;
  std::string endpoint_;
  const Handlers& handlers_;
  std::string uniqueName_;
  Exchange* current_ = nullptr;
};

}  // namespace kova::ipc
