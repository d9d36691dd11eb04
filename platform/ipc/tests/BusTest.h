#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "../src/Protocol.h"
#include "../src/SdBus.h"
#include "../src/Wire.h"
#include "PrivateBus.h"
#include "kova/ipc/Handlers.h"
#include "kova/ipc/Ipc.h"
#include "kova/utils/Clock.h"

namespace kova::ipc::testing {

using messages::BaseRequestMessage;
using messages::BaseResponseMessage;
using variant::Variant;

/// Handles a function of an endpoint: records what it receives and responds as configured.
class Recorder : public BaseHandler {
 public:
  using Action = std::function<bool(BaseRequestMessage&, bool&)>;

  Recorder(Ipc* ipc, const std::string& function, Action action = {})
      : BaseHandler("Recorder", ipc), action_(std::move(action)) {
    EXPECT_TRUE(ipc->AddHandler(function, this));
  }

  bool HandleRequest(BaseRequestMessage& request, bool& rejected) override {
    requests.push_back(request);
    return !action_ || action_(request, rejected);
  }

  std::vector<BaseRequestMessage> requests;

 private:
  Action action_;
};

/// Records the outcome of an endpoint's own requests.
class Ledger : public TransactionsHandler {
 public:
  explicit Ledger(Ipc* ipc) : TransactionsHandler("Ledger", ipc) {}

  void MessageSentSuccessfully(messages::BaseMessage& message, bool& reserved) override {
    EXPECT_FALSE(reserved);
    sent.push_back(message.id());
  }
  bool HandleResponse(BaseRequestMessage& request, BaseResponseMessage& response,
                      bool& reserved) override {
    EXPECT_FALSE(reserved);
    responses.emplace_back(request.id(), response);
    return true;
  }
  void handleError(BaseRequestMessage& request, const std::string& error,
                   const std::string& text) override {
    errors.emplace_back(request.id(), error);
    lastText = text;
  }

  std::vector<std::uint64_t> sent;
  std::vector<std::pair<std::uint64_t, BaseResponseMessage>> responses;
  std::vector<std::pair<std::uint64_t, std::string>> errors;
  std::string lastText;  ///< of an error
};

/// The result of a call.
struct Answer {
  int arrived = 0;
  std::string error;  ///< D-Bus error name, "" for a return
  Variant body;

  int take(sd_bus_message* message, sd_bus_error*) {
    ++arrived;
    std::string reason;
    if (const sd_bus_error* failure = sd_bus_message_get_error(message)) {
      error = failure->name;
    } else if (!wire::decode(message, body, reason)) {
      error = "undecodable";
    }
    return 1;
  }
};

/// Waits until the bus has handled everything sent on this connection; negative on failure.
inline int awaitBus(sd_bus* bus) {
  return sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                            "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, "");
}

/// A program on the bus that uses sd-bus without this library.
class Stranger {
 public:
  Stranger() : bus_(openBus(false, error_)) {
    if (bus_ == nullptr) {
      ADD_FAILURE() << error_;
    }
  }

  sd_bus* bus() { return bus_.get(); }
  std::string name() {
    const char* unique = "";
    EXPECT_GE(sd_bus_get_unique_name(bus(), &unique), 0);
    return unique;
  }

  MessagePtr newCall(const std::string& endpoint, const char* path = kObjectPath,
                     const char* interface = kInterface, const char* member = kSend) {
    sd_bus_message* call = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(bus(), &call, (kNamePrefix + endpoint).c_str(), path,
                                             interface, member),
              0);
    return MessagePtr(call);
  }

  /// Sends without waiting.
  std::shared_ptr<Answer> start(sd_bus_message* call) {
    auto answer = std::make_shared<Answer>();
    EXPECT_GE(
        sd_bus_call_async(bus(), nullptr, call, callback<&Answer::take>, answer.get(), 20'000'000),
        0);
    answers_.push_back(answer);
    return answer;
  }
  std::shared_ptr<Answer> start(const std::string& endpoint, const Variant& body) {
    const MessagePtr call = newCall(endpoint);
    EXPECT_TRUE(wire::encode(body, call.get(), error_)) << error_;
    return start(call.get());
  }
  std::shared_ptr<Answer> start(const std::string& endpoint, const char* function) {
    return start(endpoint, Variant(Variant::Map{{"functionName", function}}));
  }

  bool Service() {
    int result = 1;
    while (result > 0) {
      result = sd_bus_process(bus(), nullptr);
    }
    return result == 0;
  }

 private:
  std::string error_;
  BusPtr bus_;
  std::vector<std::shared_ptr<Answer>> answers_;
};

/// Counts every answer of an endpoint, including those that the bus does not deliver, and the
/// NameHasOwner calls to the bus.
class Eavesdropper {
 public:
  Eavesdropper() : bus_(openBus(true, error_)) {
    const int result = sd_bus_call_method(
        bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus.Monitoring", "BecomeMonitor", nullptr, nullptr, "asu", 0, 0U);
    EXPECT_GE(result, 0) << error_;
  }

  int answers() {
    for (int result = 1; result > 0;) {
      sd_bus_message* taken = nullptr;
      result = sd_bus_process(bus_.get(), &taken);
      const MessagePtr message(taken);
      answers_ += message != nullptr && isAnswer(message.get()) ? 1 : 0;
      questions_ += sd_bus_message_is_method_call(taken, nullptr, "NameHasOwner") > 0 ? 1 : 0;
    }
    return answers_;
  }
  /// NameHasOwner calls seen by the last call of answers().
  int questions() const { return questions_; }

 private:
  static bool isAnswer(sd_bus_message* message) {
    std::uint64_t cookie = 0;
    return sd_bus_message_get_reply_cookie(message, &cookie) >= 0 &&
           std::string_view(sd_bus_message_get_sender(message)) != "org.freedesktop.DBus";
  }

  std::string error_;
  BusPtr bus_;
  int answers_ = 0;
  int questions_ = 0;
};

/// A bus with an endpoint "test" and a stranger.
class BusTest : public ::testing::Test {
 protected:
  void join(bool receiveBroadcasts = false, TransactionsHandler* transactions = nullptr) {
    ASSERT_TRUE(ipc_.Init("test", receiveBroadcasts, transactions));
    serviced_.push_back(&ipc_);
  }

  static BaseRequestMessage to(const std::string& endpoint, std::uint64_t id = 1) {
    BaseRequestMessage request;
    request.functionName("Tell");
    request.to(endpoint);
    request.id(id);
    return request;
  }

  /// Services all participants until `done`; false on time-out.
  bool until(const std::function<bool()>& done) {
    const auto deadline = utils::nowMs() + 20'000;
    while (!done()) {
      for (Ipc* ipc : serviced_) {
        ipc->Service(serviced_.size() == 1 ? 1 : 0);
      }
      stranger_.Service();
      if (utils::nowMs() > deadline) {
        return false;
      }
    }
    return true;
  }

  Answer call(sd_bus_message* call) {
    const auto answer = stranger_.start(call);
    EXPECT_TRUE(until([&] { return answer->arrived > 0; }));
    return *answer;
  }
  template <typename Message>
  Answer call(const Message& message) {
    const auto answer = stranger_.start("test", message);
    EXPECT_TRUE(until([&] { return answer->arrived > 0; }));
    return *answer;
  }

  PrivateBus privateBus_;
  Ipc ipc_;
  Stranger stranger_;
  std::vector<Ipc*> serviced_;
};

}  // namespace kova::ipc::testing
