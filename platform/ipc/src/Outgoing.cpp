#include "Outgoing.h"

#include <cerrno>

#include "Protocol.h"
#include "Wire.h"
#include "kova/ipc/Handlers.h"
#include "kova/logger/Logger.h"

namespace kova::ipc {
namespace {

constexpr char kLogIdentity[] = "kova_ipc";
constexpr char kLogUnit[] = "Outgoing";

bool refuse(messages::BaseRequestMessage& request, const char* reason) {
  KOVA_LOG(LOG_WARNING, 0, "Unable to send \"%s\" to \"%s\": %s", request.functionName().c_str(),
           request.to().c_str(), reason);
  return false;
}

}  // namespace

bool Outgoing::send(messages::BaseRequestMessage& request) {
  if (request.from().empty()) {
    request.from(endpoint_);
  }
  request.NormalizeFields();
  if (request.isBroadcast()) {
    return broadcast(request);
  }
  const std::string endpoint = request.to();
  if (sd_bus_service_name_is_valid((kNamePrefix + endpoint).c_str()) <= 0) {
    return refuse(request, "no valid endpoint");
  }
  if (present_.has(endpoint)) {
    return sendTo(endpoint, request);
  }
  present_.verify(endpoint);
  return request.queueIfDestUnavailable() ? queue(endpoint, request)
                                          : refuse(request, "it is not on the bus");
}

bool Outgoing::queue(const std::string& endpoint, const messages::BaseRequestMessage& request) {
  messages::BaseRequestMessage waiting(request);
  std::size_t bytes{};
  std::string reason;
  if (!wire::measure(waiting, bytes, reason)) {
    return refuse(waiting, reason.c_str());
  }
  queue_.put(endpoint, std::move(waiting), bytes);
  return true;
}

void Outgoing::flush(const std::string& endpoint) {
  for (auto& request : queue_.take(endpoint)) {
    sendTo(endpoint, request);
  }
}

bool Outgoing::sendTo(const std::string& endpoint, messages::BaseRequestMessage& request) {
  sd_bus_message* call = nullptr;
  const int result = sd_bus_message_new_method_call(bus_, &call, (kNamePrefix + endpoint).c_str(),
                                                    kObjectPath, kInterface, kSend);
  MessagePtr message(call);
  return result >= 0 ? post(std::move(message), request, request.responseExpected())
                     : refuse(request, explain("no message", result).c_str());
}

bool Outgoing::broadcast(messages::BaseRequestMessage& request) {
  sd_bus_message* signal = nullptr;
  const int result = sd_bus_message_new_signal(bus_, &signal, kObjectPath, kInterface, kBroadcast);
  MessagePtr message(signal);
  return result >= 0 ? post(std::move(message), request, false)
                     : refuse(request, explain("no message", result).c_str());
}

bool Outgoing::post(MessagePtr message, messages::BaseRequestMessage& request, bool expectsAnswer) {
  std::string reason;
  if (!wire::encode(request, message.get(), reason)) {
    return refuse(request, reason.c_str());
  }
  int result = -ENOBUFS;
  if (unsentMessages(bus_) < kMaxUnsent) {
    // Without a cookie argument, sd_bus_send() marks the message as expecting no reply.
    result =
        expectsAnswer ? call(message.get(), request) : sd_bus_send(bus_, message.get(), nullptr);
  }
  if (!succeeded(result, "the bus does not take it", reason)) {
    return refuse(request, reason.c_str());
  }
  if (handler_ != nullptr) {
    bool reserved = false;
    handler_->MessageSentSuccessfully(request, reserved);
  }
  return true;
}

int Outgoing::call(sd_bus_message* call, messages::BaseRequestMessage& request) {
  const auto transaction = transactions_.insert(transactions_.end(), Transaction{*this, request});
  transaction->self = transaction;
  const int result = sd_bus_call_async(bus_, nullptr, call, callback<&Transaction::onAnswer>,
                                       &*transaction, kAnswerTimeoutUs);
  if (result < 0) {
    transactions_.erase(transaction);
  }
  return result;
}

int Outgoing::Transaction::onAnswer(sd_bus_message* answer, sd_bus_error*) {
  // Unlink the transaction first: the handler may send, which changes the list. `done` destroys it
  // on return.
  std::list<Transaction> done;
  done.splice(done.begin(), owner.transactions_, self);
  if (const sd_bus_error* error = sd_bus_message_get_error(answer)) {
    owner.reportError(request, error->name, error->message);
  } else {
    owner.reportAnswer(request, answer);
  }
  return 1;
}

void Outgoing::reportAnswer(messages::BaseRequestMessage& request, sd_bus_message* answer) {
  messages::BaseResponseMessage response;
  std::string reason;
  if (!wire::decode(answer, response, reason)) {
    reportError(request, kInvalidMessage, reason.c_str());
  } else if (handler_ != nullptr) {
    bool reserved = false;
    handler_->HandleResponse(request, response, reserved);
  }
}

void Outgoing::reportError(messages::BaseRequestMessage& request, const char* name,
                           const char* text) {
  const std::string error = orEmpty(name);
  const std::string explanation = orEmpty(text);
  if (handler_ != nullptr) {
    handler_->handleError(request, error, explanation);
  } else {
    refuse(request, (error + ": " + explanation).c_str());
  }
}

}  // namespace kova::ipc
