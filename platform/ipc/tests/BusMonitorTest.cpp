#include "kova/ipc/BusMonitor.h"

#include <optional>

#include "BusTest.h"

namespace kova::ipc::testing {
namespace {

using Kind = SeenMessage::Kind;

class BusMonitorTest : public BusTest {
 protected:
  void openMonitor() {
    std::string error;
    ASSERT_TRUE(monitor_.open(error)) << error;
  }
  bool untilSeen(std::size_t count) {
    return until([&] {
      monitor_.Service(0, [&](const SeenMessage& message) { seen_.push_back(message); });
      return seen_.size() >= count;
    });
  }

  // A call by stranger_ to this endpoint; returns once the monitor has seen it as message `number`.
  MessagePtr seenCall(const char* endpoint, std::size_t number, bool expectsAnswer = true) {
    MessagePtr call = stranger_.newCall(endpoint);
    std::string reason;
    EXPECT_TRUE(wire::encode(Variant(Variant::Map{{"functionName", "Tell"}}), call.get(), reason));
    std::uint64_t serial = 0;
    EXPECT_GE(sd_bus_send(stranger_.bus(), call.get(), expectsAnswer ? &serial : nullptr), 0);
    EXPECT_TRUE(untilSeen(number));
    return call;
  }

  // Sends an answer to a call of `caller`, and waits until the bus has seen it.
  static void answer(Stranger& intruder, const std::string& caller, sd_bus_message* call) {
    std::uint64_t serial = 0;
    ASSERT_GE(sd_bus_message_get_cookie(call, &serial), 0);
    const MessagePtr same = intruder.newCall("test");
    ASSERT_GE(sd_bus_message_seal(same.get(), serial, 0), 0);
    sd_bus_message* created = nullptr;
    ASSERT_GE(sd_bus_message_new_method_return(same.get(), &created), 0);
    const MessagePtr forged(created);
    std::string reason;
    ASSERT_TRUE(wire::encode(Variant(Variant::Map{{"forged", true}}), created, reason));
    ASSERT_GE(sd_bus_message_set_destination(created, caller.c_str()), 0);
    ASSERT_GE(sd_bus_send(intruder.bus(), created, nullptr), 0);
    ASSERT_GE(awaitBus(intruder.bus()), 0);
  }

  static void ignore(const SeenMessage&) {}

  BusMonitor monitor_;
  std::vector<SeenMessage> seen_;
};

TEST_F(BusMonitorTest, ShowsCallsAndAnswersByEndpoint) {
  Recorder handler(&ipc_, "Tell");
  join();
  openMonitor();
  Ipc later;
  Ledger ledger(&later);
  ASSERT_TRUE(later.Init("later", false, &ledger));
  serviced_.push_back(&later);
  BaseRequestMessage request = to("test");
  request.responseExpected(true);
  ASSERT_TRUE(later.SendRequest(request));
  ASSERT_TRUE(untilSeen(2));
  EXPECT_EQ(seen_[0].kind, Kind::Call);
  EXPECT_EQ(seen_[0].sender, "later");
  EXPECT_EQ(seen_[0].destination, "test");
  EXPECT_EQ(seen_[0].body, request);
  EXPECT_EQ(seen_[1].kind, Kind::Answer);
  EXPECT_EQ(seen_[1].sender, "test");
  EXPECT_EQ(seen_[1].destination, "later");
}

TEST_F(BusMonitorTest, ShowsErrorsBroadcastsAndNamelessClients) {
  join();
  openMonitor();
  call("Unknown");
  BaseRequestMessage event = to("");
  event.isBroadcast(true);
  ASSERT_TRUE(ipc_.SendRequest(event));
  ASSERT_TRUE(untilSeen(3));
  const std::string unique = stranger_.name();
  EXPECT_EQ(seen_[0].kind, Kind::Call);
  EXPECT_EQ(seen_[0].sender, unique);
  EXPECT_EQ(seen_[1].kind, Kind::Error);
  EXPECT_EQ(seen_[1].destination, unique);
  EXPECT_EQ(seen_[1].error, "kova.Error.UnknownFunction: no such function");
  EXPECT_EQ(seen_[2].kind, Kind::Broadcast);
  EXPECT_EQ(seen_[2].sender, "test");
  EXPECT_EQ(seen_[2].destination, "");
  EXPECT_EQ(seen_[2].body, event);
}

TEST_F(BusMonitorTest, ClientKeepsFirstOfItsNames) {
  join();
  openMonitor();
  EXPECT_GE(sd_bus_request_name(stranger_.bus(), "kova.first", 0), 0);
  EXPECT_GE(sd_bus_request_name(stranger_.bus(), "kova.second", 0), 0);
  call("Unknown");
  EXPECT_GE(sd_bus_release_name(stranger_.bus(), "kova.first"), 0);
  call("Unknown");
  ASSERT_TRUE(untilSeen(4));
  EXPECT_EQ(seen_[0].sender, "first");
  EXPECT_EQ(seen_[2].sender, "second");
}

TEST_F(BusMonitorTest, ShowsUndecodableMessageWithoutBody) {
  join();
  openMonitor();
  const MessagePtr message = stranger_.newCall("test");
  sd_bus_message_append(message.get(), "a{sv}s", 1, "key", "s", "value", "text");
  call(message.get());
  ASSERT_TRUE(untilSeen(1));
  EXPECT_EQ(seen_[0].kind, Kind::Call);
  EXPECT_TRUE(seen_[0].body.isEmpty());
}

// A monitor receives messages that the policy withholds from all other clients.
TEST_F(BusMonitorTest, ForgedOwnerChangeIsIgnored) {
  join();
  openMonitor();
  const std::string unique = stranger_.name();
  ASSERT_GE(sd_bus_emit_signal(stranger_.bus(), "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "NameOwnerChanged", "sss", "kova.other", "", unique.c_str()),
            0);
  call("Unknown");
  ASSERT_TRUE(untilSeen(2));
  EXPECT_EQ(seen_[0].sender, unique);
  EXPECT_EQ(seen_[1].destination, unique);
}

TEST_F(BusMonitorTest, OnlyCalledEndpointAnswers) {
  Recorder handler(&ipc_, "Tell");
  ASSERT_TRUE(ipc_.Init("test", false, nullptr));
  openMonitor();
  const MessagePtr call = seenCall("test", 1);
  Stranger intruder;
  answer(intruder, stranger_.name(), call.get());
  serviced_.push_back(&ipc_);
  ASSERT_TRUE(untilSeen(2));
  EXPECT_EQ(seen_[1].kind, Kind::Answer);
  EXPECT_EQ(seen_[1].sender, "test");
}

TEST_F(BusMonitorTest, OnlyExpectedAnswersAreShownOnceEach) {
  openMonitor();
  std::optional<Stranger> endpoint(std::in_place);
  ASSERT_GE(sd_bus_request_name(endpoint->bus(), "kova.other", 0), 0);
  const MessagePtr answered = seenCall("other", 1);
  answer(*endpoint, stranger_.name(), answered.get());
  answer(*endpoint, stranger_.name(), answered.get());
  const MessagePtr told = seenCall("other", 3, false);
  answer(*endpoint, stranger_.name(), told.get());
  // The bus answers for an endpoint that has left.
  seenCall("other", 4);
  endpoint.reset();
  ASSERT_TRUE(untilSeen(5));
  std::string kinds;
  for (const auto& message : seen_) {
    kinds += std::to_string(static_cast<int>(message.kind));
  }
  EXPECT_EQ(kinds, "01002") << "call, answer, two calls, error";
}

TEST_F(BusMonitorTest, CallsOfClientThatLeftAreForgotten) {
  openMonitor();
  Stranger endpoint;
  ASSERT_GE(sd_bus_request_name(endpoint.bus(), "kova.other", 0), 0);
  std::optional<Stranger> client(std::in_place);
  const std::string name = client->name();
  const MessagePtr call = client->newCall("other");
  ASSERT_GE(sd_bus_message_append(call.get(), "a{sv}", 0), 0);
  client->start(call.get());
  ASSERT_TRUE(untilSeen(1));
  client.reset();
  answer(endpoint, name, call.get());
  seenCall("other", 2);
  EXPECT_EQ(seen_[1].kind, Kind::Call);
}

TEST_F(BusMonitorTest, ReportsClosedBus) {
  openMonitor();
  EXPECT_TRUE(monitor_.Service(1, ignore) && monitor_.Service(1, ignore));
  privateBus_.kill();
  EXPECT_FALSE(monitor_.Service(1000, ignore) && monitor_.Service(1000, ignore));
  std::string error;
  EXPECT_FALSE(BusMonitor().open(error));
  EXPECT_NE(error, "");
}

}  // namespace
}  // namespace kova::ipc::testing
