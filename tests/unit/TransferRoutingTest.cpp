#include "RoutingFixture.h"

namespace kova::ctlserver {
namespace {

TEST_F(TransferRoutingTest, WordIgnoresCaseAndUnknownWordIsFirst) {
  write("/tmp/snap.jpeg", "picture");
  for (const char* what : {"Snapshot", "SNAPSHOT", "logo", "no such word", ""}) {
    peerAnswers("");
    EXPECT_TRUE(get({{"what", what}, {"uri", uri()}}));
    EXPECT_TRUE(serviceUntilRequests(1)) << what;
  }
  for (const char* what : {"LOGO", "snapshot", "supportInfo", ""}) {
    peerAnswers("content");
    empty("/etc/persistent");
    EXPECT_TRUE(put({{"what", what}, {"uri", uri()}, {"hash", kContentDigest}}));
    EXPECT_TRUE(serviceUntil([&] { return exists("/etc/persistent/user_logo"); })) << what;
    server_->service(0);
  }
}

TEST_F(TransferRoutingTest, MissingWordIsLoggedAndStartsNothing) {
  for (const Fields& fields : {Fields{{"uri", uri()}}, Fields{{"uri", uri()}, {"what", 7}}}) {
    startServer();
    auto request = make<ipc::messages::GetRequest>(fields);
    EXPECT_FALSE(server_->getRequest(request));
    auto other = make<ipc::messages::PutRequest>(fields);
    EXPECT_FALSE(server_->putRequest(other));
    EXPECT_THAT(
        logged(),
        ElementsAre("3 CtlServer.getRequest: Unrecognized GetRequest: " + request.ToString(),
                    "3 CtlServer.putRequest: Unrecognized PutRequest: " + other.ToString()));
    EXPECT_THAT(events(), IsEmpty());
    EXPECT_THAT(platform().commands, IsEmpty());
  }
}

TEST_F(TransferRoutingTest, SecondRequestOfSameUriIsRefusedForAnyKind) {
  for (const char* first : kKinds) {
    for (const char* second : kTransferKinds) {
      startServer();
      ASSERT_TRUE(ask(first, uri()));
      platform().commands.clear();
      EXPECT_FALSE(ask(second, uri()));
      EXPECT_THAT(logged(), ElementsAre(duplicate("uri", second, uri(), operationOf(second))));
      EXPECT_THAT(platform().commands, IsEmpty());
    }
  }
}

TEST_F(TransferRoutingTest, FirmwareUpdateFindsDuplicateUriWhenAdded) {
  for (const char* first : kTransferKinds) {
    startServer();
    ASSERT_TRUE(ask(first, uri()));
    EXPECT_FALSE(ask("fw", uri()));
    EXPECT_THAT(logged(),
                ElementsAre("3 TransferService.add: Task fw busy, failed to start, uri=" + uri()));
  }
}

TEST_F(TransferRoutingTest, OnlyWordEqualToTaskNameExcludesOtherUri) {
  const std::string other = uri("/other");
  for (const std::string first : kKinds) {
    for (const std::string second : kKinds) {
      SCOPED_TRACE(first + " then " + second);
      startServer();
      ASSERT_TRUE(ask(first, uri()));
      const bool refused = first == second && taskName(first) == first;
      EXPECT_EQ(ask(second, other), !refused);
      if (!refused) {
        EXPECT_THAT(logged(), IsEmpty());
        EXPECT_FALSE(ask("snapshot", other)) << "the second is registered";
        continue;
      }
      EXPECT_THAT(logged(), ElementsAre(duplicate("name", second, other, operationOf(second))));
    }
  }
}

TEST_F(TransferRoutingTest, TasksRegisteredTwiceEnd) {
  peerAnswers("content");
  for (const char* what : {"supportInfo", "logo", "sound"}) {
    SCOPED_TRACE(what);
    startServer();
    ASSERT_TRUE(ask(what, uri("/first")));
    ASSERT_TRUE(ask(what, uri("/second")));
    write("/tmp/supportinfo.tar", "archive");
    // Probe with a kind that is not running; without a time-out it never starts, so the probe
    // disturbs nothing.
    const auto isTaken = [&](const std::string& path) {
      platform().log.clear();
      ask("eventSnapshot", uri(path), {{"timeoutMs", 0}});
      return platform().log[0].text.starts_with("Transfer with such uri");
    };
    EXPECT_TRUE(isTaken("/first") && isTaken("/second"));
    EXPECT_TRUE(serviceUntil([&] { return !isTaken("/first") && !isTaken("/second"); }));
  }
}

TEST_F(TransferRoutingTest, RefusedRequestDoesNotDisturbRunningTransfer) {
  write("/tmp/snap.jpeg", "picture");
  peerHolds();
  ASSERT_TRUE(ask("snapshot", uri(), {{"id", 1}}));
  ASSERT_TRUE(serviceUntilConnections(1));
  EXPECT_FALSE(ask("snapshot", uri("/other"), {{"id", 2}, {"from", "client.b"}}));
  EXPECT_FALSE(ask("snapshot", uri(), {{"id", 3}, {"from", "client.b"}}));
  peer_.reset();
  ASSERT_TRUE(serviceUntilEvent());
  EXPECT_THAT(events(), ElementsAre("EventTransferRequestStatus to=client.a id=1 TRANSFER_FAILED"));
}

TEST_F(TransferRoutingTest, KindIsFreeOnceItsTransferEnds) {
  write("/tmp/snap.jpeg", "picture");
  for (std::size_t round = 1; round <= 3; ++round) {
    ASSERT_TRUE(ask("snapshot", uri()));
    ASSERT_TRUE(serviceUntilRequests(round));
  }
}

TEST_F(TransferRoutingTest, DuplicateIsReportedBeforeMissingWord) {
  ASSERT_TRUE(ask("supportInfo", uri()));
  EXPECT_FALSE(get({{"uri", uri()}}));
  EXPECT_FALSE(put({{"uri", uri()}}));
  EXPECT_THAT(logged(), ElementsAre(duplicate("uri", "_UNINITIALIZED_", uri(), "getRequest"),
                                    duplicate("uri", "_UNINITIALIZED_", uri(), "putRequest")));
}

TEST_F(TransferRoutingTest, SecondFirmwareUpdateLeavesRunningOneAlone) {
  peerHolds();
  ASSERT_TRUE(ask("fw", uri(), {{"id", 1}}));
  ASSERT_TRUE(serviceUntilConnections(1));
  write("/tmp/fwupdate.bin", "so far");
  for (const char* path : {"/file", "/other"}) {
    EXPECT_FALSE(ask("fw", uri(path), {{"id", 2}, {"from", "client.b"}, {"timeoutMs", 1}}));
  }
  EXPECT_THAT(logged(), ElementsAre(duplicate("name", "fw", uri(), "updateFirmware"),
                                    duplicate("name", "fw", uri("/other"), "updateFirmware")));
  EXPECT_EQ(read("/tmp/fwupdate.bin"), "so far");
  platform().nowMs += 20001;
  server_->service(0);
  EXPECT_THAT(events(),
              ElementsAre("EventUpdateFirmwareFailure to=client.a id=1 TRANSFER_TIMEOUT"));
}

}  // namespace
}  // namespace kova::ctlserver
