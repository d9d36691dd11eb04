#pragma once

#include <list>
#include <string>

#include "BusNames.h"
#include "OutQueue.h"
#include "SdBus.h"
#include "kova/messages/BaseMessage.h"

namespace kova::ipc {

class TransactionsHandler;

/// Sends this endpoint's own requests and events, immediately or once their destination has joined
/// the bus, and receives the answers.
class Outgoing {
 public:
  /// Time-out for an answer, in microseconds; if the peer leaves the bus, the call fails at once.
  /// Upper bound only; callers use shorter time-outs.
  static constexpr std::uint64_t kAnswerTimeoutUs = 3'600'000'000;
  /// Length of the send queue from which signals of objects are refused. A signal can be repeated
  /// later; a request or an event cannot.
  static constexpr std::uint64_t kMaxUnsentSignals = 1024;
  /// Likewise for requests and events, which thus have half of the queue to themselves.
  static constexpr std::uint64_t kMaxUnsent = 2 * kMaxUnsentSignals;

  /// @param bus          must outlive this object
  /// @param transactions may be null; not owned
  Outgoing(sd_bus* bus, std::string endpoint, TransactionsHandler* transactions)
      : bus_(bus),
        endpoint_(std::move(endpoint)),
        handler_(transactions),
        present_([this](const std::string& appeared) { flush(appeared); }) {}

  Outgoing(const Outgoing&) = delete;
  Outgoing& operator=(const Outgoing&) = delete;

  /// Starts tracking which endpoints are on the bus; call it once, before anything else.
  bool start(std::string& error) { return present_.watch(bus_, error); }
  /// Implements Ipc::SendRequest.
  bool send(messages::BaseRequestMessage& request);
  bool isPresent(const std::string& endpoint) const { return present_.has(endpoint); }

 private:
  /// A request waiting for its answer.
  struct Transaction {
    Outgoing& owner;
    messages::BaseRequestMessage request;
    std::list<Transaction>::iterator self{};

    int onAnswer(sd_bus_message* answer, sd_bus_error* error);
  };

  bool sendTo(const std::string& endpoint, messages::BaseRequestMessage& request);
  bool broadcast(messages::BaseRequestMessage& request);
  bool queue(const std::string& endpoint, const messages::BaseRequestMessage& request);
  void flush(const std::string& endpoint);
  int call(sd_bus_message* call, messages::BaseRequestMessage& request);
  bool post(MessagePtr message, messages::BaseRequestMessage& request, bool expectsAnswer);
  void reportAnswer(messages::BaseRequestMessage& request, sd_bus_message* answer);
  void reportError(messages::BaseRequestMessage& request, const char* name, const char* text);

  sd_bus* bus_;
  std::string endpoint_;
  TransactionsHandler* handler_;
  OutQueue queue_;
  std::list<Transaction> transactions_;
  PresentEndpoints present_;
};

}  // namespace kova::ipc
