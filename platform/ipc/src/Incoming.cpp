#include "Incoming.h"

#include <string_view>

#include "Protocol.h"
#include "Wire.h"
#include "kova/ipc/Handlers.h"
#include "kova/logger/Logger.h"
#include "kova/variant/BaseVariantContainer.h"

namespace kova::ipc {
namespace {

constexpr char kLogIdentity[] = "kova_ipc";
constexpr char kLogUnit[] = "Incoming";

constexpr char kBroadcastMatch[] =
    "type='signal',path='/kova',interface='kova.Ipc1',member='Broadcast'";

// Calls may omit the interface (D-Bus specification, "Message Types").
bool isSend(sd_bus_message* call) {
  const char* interface = sd_bus_message_get_interface(call);
  return sd_bus_message_is_method_call(call, nullptr, kSend) > 0 &&
         (interface == nullptr || std::string_view(interface) == kInterface);
}

// The name as sent; the accessor functionName() would repair a missing or mistyped one.
std::string functionNameOf(const variant::Variant& message) {
  const variant::Variant* name = message.find("functionName");
  return name != nullptr ? name->toText() : std::string();
}

bool reply(sd_bus_message* call, const variant::Variant& body) {
  sd_bus_message* created = nullptr;
  std::string reason;
  const int result = sd_bus_message_new_method_return(call, &created);
  const MessagePtr answer(created);
  // The library drops the answer to a call that expects none.
  const bool answered =
      succeeded(result, "no message", reason) && wire::encode(body, created, reason) &&
      succeeded(sd_bus_send(nullptr, created, nullptr), "it is not taken", reason);
  if (!answered) {
    KOVA_LOG(LOG_ERR, 0, "Unable to answer \"%s\": %s",
             orEmpty(sd_bus_message_get_sender(call)).c_str(), reason.c_str());
  }
  return answered;
}

}  // namespace

bool Incoming::serve(bool receiveBroadcasts, std::string& error) {
  // sd-bus calls object callbacks before it consults vtables, so calls of any signature reach
  // onCall(); the vtable only serves introspection.
  static constexpr sd_bus_vtable kTable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_ARGS("Send", SD_BUS_ARGS("a{sv}", message),
                              SD_BUS_RESULT("a{sv}", response), callback<&Incoming::onCall>,
                              SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_SIGNAL_WITH_ARGS("Broadcast", SD_BUS_ARGS("a{sv}", message), 0), SD_BUS_VTABLE_END};
  const char* unique = nullptr;
  int result = sd_bus_get_unique_name(bus_, &unique);
  uniqueName_ = orEmpty(unique);
  if (result >= 0) {
    result = sd_bus_add_object(bus_, nullptr, kObjectPath, callback<&Incoming::onCall>, this);
  }
  if (result >= 0) {
    result = sd_bus_add_object_vtable(bus_, nullptr, kObjectPath, kInterface, kTable, this);
  }
  if (result >= 0 && receiveBroadcasts) {
    result =
        sd_bus_add_match(bus_, nullptr, kBroadcastMatch, callback<&Incoming::onBroadcast>, this);
  }
  return succeeded(result, "Unable to serve the object", error);
}

BaseHandler* Incoming::handlerOf(const std::string& functionName) const {
  auto found = handlers_.find(functionName);
  if (found == handlers_.end()) {
    found = handlers_.find("");
  }
  return found != handlers_.end() ? found->second : nullptr;
}

Incoming::Outcome Incoming::handle(messages::BaseRequestMessage& request) {  // kept: 15
  const std::string name = functionNameOf(request);
  BaseHandler* handler = handlerOf(name);
  if (handler == nullptr) {
    return Outcome::Unknown;
  }
  bool rejected = false;
  const bool handled = handler->HandleRequest(request, rejected);
  if (!handled) {
    KOVA_LOG_IN("Handle", LOG_WARNING, 0, "%s failed to handle \"%s\" from \"%s\"",
                handler->name().c_str(), name.c_str(), request.from().c_str());
  }
  if (rejected) {
    return Outcome::Unknown;
  }
  return handled ? Outcome::Taken : Outcome::Failed;
}

// Has its own exception barrier, so that a handler that throws after answering does not cause a
// second answer.
Incoming::Outcome Incoming::handleGuarded(messages::BaseRequestMessage& request) {
  return guarded("HandleRequest", Outcome::Failed, [&] { return handle(request); });
}

int Incoming::onCall(sd_bus_message* call, sd_bus_error* error) {  // kept: 15
  if (!isSend(call)) {
    return 0;
  }
  messages::BaseRequestMessage request;
  std::string reason;
  if (!wire::decode(call, request, reason)) {
    KOVA_LOG_IN("OnCall", LOG_WARNING, 0, "Refused a message from \"%s\": %s",
                orEmpty(sd_bus_message_get_sender(call)).c_str(), reason.c_str());
    return sd_bus_error_set(error, kInvalidMessage, reason.c_str());
  }
  // Reading the id also stores it, so that all copies of a request without an id share the same
  // one.
  Exchange exchange{call, request.id()};
  current_ = &exchange;
  const Outcome outcome = handleGuarded(request);
  current_ = nullptr;
  return conclude(exchange, outcome, error);
}

int Incoming::conclude(const Exchange& exchange, Outcome outcome, sd_bus_error* error) {
  using State = Exchange::State;
  if (exchange.state == State::Answered) {
    return 1;
  }
  if (outcome == Outcome::Unknown) {
    return sd_bus_error_set(error, kUnknownFunction, "no such function");
  }
  if (outcome == Outcome::Taken && exchange.state == State::Open &&
      reply(exchange.call, variant::BaseVariantContainer())) {
    return 1;
  }
  return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "the request could not be answered");
}

int Incoming::onBroadcast(sd_bus_message* signal, sd_bus_error*) {  // kept: 15
  if (orEmpty(sd_bus_message_get_sender(signal)) == uniqueName_) {
    return 0;
  }
  messages::BaseRequestMessage request;
  std::string reason;
  if (!wire::decode(signal, request, reason)) {
    KOVA_LOG_IN("OnBroadcast", LOG_WARNING, 0, "Ignored a broadcast from \"%s\": %s",
                orEmpty(sd_bus_message_get_sender(signal)).c_str(), reason.c_str());
    return 0;
  }
  // Reading the id stores one in a request without one.
  request.id();
  handleGuarded(request);
  return 0;
}

bool Incoming::respond(messages::BaseRequestMessage& request,
                       messages::BaseResponseMessage& response) {  // kept: 15
  using State = Exchange::State;
  if (current_ == nullptr || current_->state != State::Open ||
      request.id() != current_->requestId) {
    KOVA_LOG_IN("Respond", LOG_ERR, 0, "No request that a response could go to is being handled");
    return false;
  }
  response.requestId(request.id());
  response.to(request.from());
  response.from(endpoint_);
  response.NormalizeFields();
  const bool answered = reply(current_->call, response);
  current_->state = answered ? State::Answered : State::Unanswerable;
  return answered;
}

}  // namespace kova::ipc
