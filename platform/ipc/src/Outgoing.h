#pragma once

#include <list>
#include <string>

#include "Names.h"
#include "OutQueue.h"
#include "SdBus.h"
#include "kova/messages/BaseMessage.h"

namespace kova::ipc {

class TransactionsHandler;

/// What this endpoint sends of itself: requests and events to other endpoints, now or when they
/// have joined, and the answers that come back.
class Outgoing {
 public:
  /// Longest wait for an answer, in microseconds; a peer that leaves the bus ends it at once. Only
  /// a bound: who asks has a shorter patience of his own.
  static constexpr std::uint64_t kAnswerTimeoutUs = 3'600'000'000;
  /// Messages that may wait in the process for a bus that does not read.
  static constexpr std::uint64_t kMaxUnsent = 1024;

  /// @param bus          must outlive this object
  /// @param transactions may be null; not owned
  Outgoing(sd_bus* bus, std::string endpoint, TransactionsHandler* transactions)
      : bus_(bus),
        endpoint_(std::move(endpoint)),
        handler_(transactions),
        names_([this](const std::string& appeared) { Flush(appeared); }) {}

  Outgoing(const Outgoing&) = delete;
  Outgoing& operator=(const Outgoing&) = delete;

  /// Starts to follow who is on the bus; call it once, before anything else.
  bool Start(std::string& error) { return names_.Watch(bus_, error); }
  /// Ipc::SendRequest.
  bool Send(messages::BaseRequestMessage& request);
  bool IsPresent(const std::string& endpoint) const { return names_.Has(endpoint); }

 private:
  /// A request whose answer is awaited.
  struct Transaction {
    Outgoing& owner;
    messages::BaseRequestMessage request;
    std::list<Transaction>::iterator self{};
    SlotPtr slot{};

    int OnAnswer(sd_bus_message* answer, sd_bus_error* error);
  };

  bool SendTo(const std::string& endpoint, messages::BaseRequestMessage& request);
  bool Broadcast(messages::BaseRequestMessage& request);
  bool Queue(const std::string& endpoint, const messages::BaseRequestMessage& request);
  void Flush(const std::string& endpoint);
  int Call(sd_bus_message* call, messages::BaseRequestMessage& request);
  bool Post(MessagePtr message, messages::BaseRequestMessage& request, bool expectsAnswer);
  void ReportAnswer(messages::BaseRequestMessage& request, sd_bus_message* answer);
  void ReportError(messages::BaseRequestMessage& request, const char* name, const char* text);

  sd_bus* bus_;
  std::string endpoint_;
  TransactionsHandler* handler_;
  OutQueue queue_;
  std::list<Transaction> transactions_;
  Names names_;
};

}  // namespace kova::ipc
