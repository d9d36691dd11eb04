#include "kova/ipc/BusMonitor.h"

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

  // Sends the caller of a call of stranger_ an answer to it, and waits until the bus has seen it.
  void forgeAnswer(Stranger& intruder, sd_bus_message* call) {
    std::uint64_t serial = 0;
    const char* caller = nullptr;
    ASSERT_GE(sd_bus_message_get_cookie(call, &serial), 0);
    ASSERT_GE(sd_bus_get_unique_name(stranger_.bus(), &caller), 0);
    const MessagePtr same = intruder.newCall("test");
    ASSERT_GE(sd_bus_message_seal(same.get(), serial, 0), 0);
    sd_bus_message* created = nullptr;
    ASSERT_GE(sd_bus_message_new_method_return(same.get(), &created), 0);
    const MessagePtr forged(created);
    std::string reason;
    ASSERT_TRUE(wire::encode(Variant(Variant::Map{{"forged", true}}), created, reason));
    ASSERT_GE(sd_bus_message_set_destination(created, caller), 0);
    ASSERT_GE(sd_bus_send(intruder.bus(), created, nullptr), 0);
    ASSERT_GE(sd_bus_call_method(intruder.bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, ""),
              0);
  }

  static void ignore(const SeenMessage&) {}

  BusMonitor monitor_;
  std::vector<SeenMessage> seen_;
};

TEST_F(BusMonitorTest, ShowsCallsAndAnswersByEndpoint) {
  Recorder handler(&ipc_);
  ipc_.AddHandler("Tell", &handler);
  join();
  openMonitor();
  Ipc later;
  Ledger ledger(&later);
  ASSERT_TRUE(later.Init("later", false, &ledger));
  serviced_.push_back(&later);
  BaseRequestMessage request;
  request.functionName("Tell");
  request.to("test");
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
  BaseRequestMessage event;
  event.functionName("Event");
  event.isBroadcast(true);
  ASSERT_TRUE(ipc_.SendRequest(event));
  ASSERT_TRUE(untilSeen(3));
  const char* unique = nullptr;
  sd_bus_get_unique_name(stranger_.bus(), &unique);
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
  EXPECT_GE(sd_bus_release_name(stranger_.bus(), "kova.second"), 0);
  call("Unknown");
  ASSERT_TRUE(untilSeen(1));
  EXPECT_EQ(seen_[0].sender, "first");
}

TEST_F(BusMonitorTest, ShowsUndecodableMessageWithoutBody) {
  join();
  openMonitor();
  const MessagePtr message = stranger_.newCall("test");
  sd_bus_message_append(message.get(), "s", "text");
  call(message.get());
  ASSERT_TRUE(untilSeen(1));
  EXPECT_EQ(seen_[0].kind, Kind::Call);
  EXPECT_TRUE(seen_[0].body.isEmpty());
}

// A monitor sees what the policy withholds from everybody else.
TEST_F(BusMonitorTest, ForgedOwnerNamesNobody) {
  join();
  openMonitor();
  const char* unique = nullptr;
  ASSERT_GE(sd_bus_get_unique_name(stranger_.bus(), &unique), 0);
  ASSERT_GE(sd_bus_emit_signal(stranger_.bus(), "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "NameOwnerChanged", "sss", "kova.other", "", unique),
            0);
  call("Unknown");
  ASSERT_TRUE(untilSeen(2));
  EXPECT_EQ(seen_[0].sender, unique);
  EXPECT_EQ(seen_[1].destination, unique);
}

TEST_F(BusMonitorTest, OnlyCalledEndpointAnswers) {
  Recorder handler(&ipc_);
  ipc_.AddHandler("Tell", &handler);
  ASSERT_TRUE(ipc_.Init("test", false, nullptr));
  openMonitor();
  const MessagePtr call = stranger_.newCall("test");
  std::string reason;
  ASSERT_TRUE(wire::encode(Variant(Variant::Map{{"functionName", "Tell"}}), call.get(), reason));
  stranger_.start(call.get());
  ASSERT_TRUE(untilSeen(1));
  Stranger intruder;
  forgeAnswer(intruder, call.get());
  serviced_.push_back(&ipc_);
  ASSERT_TRUE(untilSeen(2));
  EXPECT_EQ(seen_[1].kind, Kind::Answer);
  EXPECT_EQ(seen_[1].sender, "test");
}

TEST_F(BusMonitorTest, ServiceWaitsWithoutMessage) {
  openMonitor();
  const auto before = utils::nowMs();
  for (int pass = 0; pass < 5; ++pass) {
    EXPECT_TRUE(monitor_.Service(50, ignore));
  }
  EXPECT_GE(utils::nowMs() - before, 3U * 49U) << "the first passes may see the monitor arrive";
}

TEST_F(BusMonitorTest, ReportsClosedBus) {
  openMonitor();
  privateBus_.kill();
  EXPECT_FALSE(monitor_.Service(1000, ignore) && monitor_.Service(1000, ignore));
  std::string error;
  EXPECT_FALSE(BusMonitor().open(error));
  EXPECT_NE(error, "");
}

}  // namespace
}  // namespace kova::ipc::testing
