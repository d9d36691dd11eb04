#include <gtest/gtest.h>
#include <signal.h>

#include "../../platform/ipc/src/SdBus.h"
#include "../../platform/utils/process/tests/Processes.h"
#include "Child.h"
#include "Peer.h"

namespace kova::ctl::testing {
namespace {

/// Monitors the bus until it has answered the Ping with which kovactl confirms its request.
class Confirmation {
 public:
  Confirmation() {
    EXPECT_NE(bus_, nullptr) << error_;
    EXPECT_GE(sd_bus_call_method(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus.Monitoring", "BecomeMonitor", nullptr,
                                 nullptr, "asu", 0, 0U),
              0);
  }
  bool await() {
    std::uint64_t serial = 0;
    const bool seen = tests::eventually([&] {
      sd_bus_message* taken = nullptr;
      sd_bus_process(bus_.get(), &taken);
      const ipc::MessagePtr message(taken);
      if (sd_bus_message_is_method_call(taken, "org.freedesktop.DBus.Peer", "Ping") > 0) {
        sd_bus_message_get_cookie(taken, &serial);
      }
      std::uint64_t answered = 0;
      return serial != 0 && sd_bus_message_get_reply_cookie(taken, &answered) >= 0 &&
             answered == serial;
    });
    ipc::Ipc later;
    return seen && later.Init("", false, nullptr) && later.flush();  // the answer has left the bus
  }

 private:
  std::string error_;
  ipc::BusPtr bus_{ipc::openBus(true, error_)};
};

class Reboots : public BusTest {};

TEST_F(Reboots, SucceedWithoutAnswer) {
  MutePeer peer;
  expectOutput(run({"reboot"}), 0, "The camera reboots.\n");
}

// The shutdown may stop server, bus or client first; that is not a failure.
TEST_F(Reboots, SucceedWhenServerDisappears) {
  auto peer = std::make_unique<MutePeer>();
  Confirmation confirmation;
  Child child({"reboot"});
  ASSERT_TRUE(confirmation.await());
  peer.reset();
  const Result result = child.wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "The camera reboots; it has already left the bus.\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(Reboots, SucceedWhenBusCloses) {
  MutePeer peer;
  Confirmation confirmation;
  Child child({"reboot", "--delay", "1"});
  ASSERT_TRUE(confirmation.await());
  bus_.kill();
  const Result result = child.wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "The camera reboots in 1 s; it has already left the bus.\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(Reboots, SucceedWhenSigtermButNotCtrlCStopsClient) {
  for (const auto& [signal, status] : {std::pair{SIGTERM, 0}, {SIGINT, 130}}) {
    MutePeer peer;
    Confirmation confirmation;
    Child child({"reboot"});
    ASSERT_TRUE(confirmation.await());
    child.signal(signal);
    EXPECT_EQ(child.wait().status, status);
  }
}

TEST_F(Reboots, FailWithoutServer) {
  EXPECT_EQ(run({"reboot"}).status, 3);
  Peer peer([](Peer::Request&, ipc::Ipc&, bool& rejected) { rejected = true; });
  EXPECT_EQ(run({"reboot"}).status, 1);
}

}  // namespace
}  // namespace kova::ctl::testing
