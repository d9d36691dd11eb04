#include <gtest/gtest.h>
#include <signal.h>

#include "Child.h"
#include "Peer.h"
#include "PrivateBus.h"

namespace kova::ctl::testing {
namespace {

class Reboots : public ::testing::Test {
 protected:
  ipc::testing::PrivateBus bus_;
};

TEST_F(Reboots, SucceedWithoutAnswer) {
  MutePeer peer;
  const Result result = run({"reboot"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "The camera reboots.\n");
}

// It is not a failure when the camera stops server, bus or client while it goes down.
TEST_F(Reboots, SucceedWhenServerDisappears) {
  auto peer = std::make_unique<MutePeer>();
  Witness witness;
  Child child({"reboot"});
  ASSERT_TRUE(witness.awaitCall("Reboot"));
  peer.reset();
  const Result result = child.wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "The camera reboots; it has already left the bus.\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(Reboots, SucceedWhenBusCloses) {
  MutePeer peer;
  Witness witness;
  Child child({"reboot", "--delay", "1"});
  ASSERT_TRUE(witness.awaitCall("Reboot"));
  bus_.kill();
  const Result result = child.wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "The camera reboots in 1 s; it has already left the bus.\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(Reboots, SucceedWhenSigtermButNotCtrlCStopsClient) {
  for (const auto& [signal, status] : {std::pair{SIGTERM, 0}, {SIGINT, 130}}) {
    MutePeer peer;
    Witness witness;
    Child child({"reboot"});
    ASSERT_TRUE(witness.awaitCall("Reboot"));
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
