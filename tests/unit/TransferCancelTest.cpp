// Transfers that are cancelled, or whose task another request takes over.

#include "ReasonsFixture.h"

namespace kova::ctlserver {
namespace {

using Cancel = TransferRecords::Cancel;

constexpr char kTakenOver[] =
    "Request 2 took over the task, with a digest, deadline and requester of its own: ";
constexpr char kKeptBack[] =
    "Transfer 1 was still running and kept this one from starting; send the request again: ";

using TransferCancelTest = TransferReasonsTest;

TEST_F(TransferCancelTest, CancelledTransferFreesNameUriAndFile) {
  peerHolds();
  for (const char* kind : {"logo", "sound", "fw"}) {
    SCOPED_TRACE(kind);
    startServer();
    ASSERT_TRUE(ask(kind, uri()));
    ASSERT_TRUE(serviceUntilConnections(1));
    const std::string file = record(1).file;
    EXPECT_TRUE(exists(file));
    EXPECT_EQ(records().cancel(1), Cancel::Done);
    EXPECT_EQ(told(1), "CANCELLED: The transfer was cancelled on request.");
    EXPECT_FALSE(exists(file));
    EXPECT_THAT(events(), ElementsAre(EndsWith(" to=client.a id=7 TRANSFER_FAILED")));
    EXPECT_THAT(
        logged(),
        ElementsAre("6 TransferService.cancelTransfer: Transfer cancelled on request, name=" +
                    taskName(kind) + ", uri=" + uri()));
    EXPECT_TRUE(ask(kind, uri())) << "at once";
    server_->service(0);
    EXPECT_EQ(record(2).phase, TransferPhase::Transferring);
    EXPECT_EQ(records().cancel(1), Cancel::Ended);
    EXPECT_EQ(records().cancel(2), Cancel::Done);
    peerHolds();
  }
}

TEST_F(TransferCancelTest, CancelledSupportArchiveEndsItsGenerator) {
  ASSERT_TRUE(ask("supportInfo", uri()));
  EXPECT_FALSE(platform().background.empty());
  EXPECT_EQ(records().cancel(1), Cancel::Done);
  EXPECT_TRUE(platform().background.empty());
  EXPECT_EQ(record(1).outcome, "CANCELLED");
}

TEST_F(TransferCancelTest, CancelOfQuietGetSendsNoEvent) {
  peerHolds();
  write("/tmp/snap.jpeg", "picture");
  ASSERT_TRUE(ask("snapshot", uri(), {{"disableEvents", true}}));
  server_->service(0);
  EXPECT_EQ(records().cancel(1), Cancel::Done);
  EXPECT_THAT(events(), IsEmpty());
  EXPECT_TRUE(exists("/tmp/snap.jpeg")) << "it belongs to another process";
}

TEST_F(TransferCancelTest, FlashingIsNotCancelled) {
  Cancel answer = Cancel::Done;
  platform().onRun = [&](const std::string&) {
    answer = records().cancel(1);
    return fakes::ProcessResult{};
  };
  peerAnswers("image");
  outcome("fw", uri());
  EXPECT_EQ(answer, Cancel::Finalising);
  EXPECT_EQ(record(1).outcome, "OK");
}

TEST_F(TransferCancelTest, TakeOverOfRunningTaskIsNotedInBoth) {
  peerHolds();
  ASSERT_TRUE(ask("logo", uri("/first")));
  ASSERT_TRUE(serviceUntilConnections(1));
  ASSERT_TRUE(ask("logo", uri("/second")));
  ASSERT_TRUE(serviceUntilEnd(1) && serviceUntilEnd(2));
  EXPECT_EQ(told(1), std::string("TRANSFER_FAILED: ") + kTakenOver + "this ended its transfer.");
  EXPECT_EQ(told(2), std::string("TRANSFER_FAILED: ") + kKeptBack +
                         "the URI or the file /tmp/user_logo is in use by another transfer, or "
                         "held by one that could not start; `kovactl exit-service` frees it.");
}

TEST_F(TransferCancelTest, TakeOverBeforeStartIsNotedInBoth) {
  peerAnswers("content");
  ASSERT_TRUE(ask("logo", uri("/first"), {{"hash", kAnyDigest}}));
  ASSERT_TRUE(ask("logo", uri("/second"), {{"hash", kContentDigest}}));
  ASSERT_TRUE(serviceUntilEnd(1) && serviceUntilEnd(2));
  EXPECT_EQ(told(1), std::string("OK: ") + kTakenOver + "the file with the MD5 digest " +
                         kContentDigest + " is installed as /etc/persistent/user_logo.");
  EXPECT_EQ(told(2), std::string("VALIDATION_FAILED: ") + kKeptBack +
                         "the file that arrived could not be read.");
  EXPECT_EQ(peer_->requests().size(), 1U);
}

TEST_F(TransferCancelTest, UploadThatNeverBeganFails) {
  ASSERT_TRUE(ask("supportInfo", uri("/first")));
  ASSERT_TRUE(ask("supportInfo", uri("/second")));
  write("/tmp/supportinfo.tar", "archive");
  ASSERT_TRUE(serviceUntilEnd(1) && serviceUntilEnd(2));
  EXPECT_EQ(record(1).outcome, "OK");
  EXPECT_EQ(told(2), std::string("TRANSFER_FAILED: ") + kKeptBack + "nothing was transferred.");
}

TEST_F(TransferCancelTest, UploadCutByCancelOfItsSuccessorIsNoSuccess) {
  peerHolds();
  ASSERT_TRUE(ask("supportInfo", uri("/first")));
  write("/tmp/supportinfo.tar", "archive");
  ASSERT_TRUE(serviceUntilConnections(1));
  ASSERT_TRUE(ask("supportInfo", uri("/second")));
  EXPECT_EQ(records().cancel(2), Cancel::Done);
  ASSERT_TRUE(serviceUntilEnd(1));
  EXPECT_EQ(told(1), std::string("TRANSFER_FAILED: ") + kTakenOver +
                         "the transfer was stopped before its end.");
  EXPECT_EQ(record(2).outcome, "CANCELLED");
  EXPECT_THAT(events(), ElementsAre(EndsWith(" TRANSFER_FAILED")));
}

TEST_F(TransferCancelTest, UploadCutByFailureOfItsSuccessorFails) {
  peerHolds();
  ASSERT_TRUE(ask("supportInfo", uri("/second")));
  write("/tmp/supportinfo.tar", "archive");
  ASSERT_TRUE(serviceUntilConnections(1));
  ASSERT_TRUE(ask("supportInfo", uri("/first"))) << "its turn comes first";
  write("/tmp/supportinfo.tar", "archive");
  ASSERT_TRUE(serviceUntilEnd(1) && serviceUntilEnd(2));
  EXPECT_EQ(told(1), std::string("TRANSFER_FAILED: ") + kTakenOver +
                         "the transfer was stopped before its end.");
  EXPECT_THAT(told(2), HasSubstr("is in use by another transfer"));
  EXPECT_THAT(events(), ElementsAre(EndsWith(" TRANSFER_FAILED")));
}

TEST_F(TransferCancelTest, CancelOfFirstRequestEndsItsSuccessor) {
  peerHolds();
  ASSERT_TRUE(ask("supportInfo", uri("/first")));
  write("/tmp/supportinfo.tar", "archive");
  ASSERT_TRUE(serviceUntilConnections(1));
  ASSERT_TRUE(ask("supportInfo", uri("/second")));
  EXPECT_EQ(records().cancel(1), Cancel::Done);
  ASSERT_TRUE(serviceUntilEnd(2));
  EXPECT_EQ(record(1).outcome, "CANCELLED");
  EXPECT_THAT(told(2), EndsWith("from starting; send the request again: nothing was transferred."));
}

TEST_F(TransferCancelTest, RefusedRequestThatArmedTaskIsNotedInFirst) {
  peerHolds();
  ASSERT_TRUE(ask("logo", uri("/first")));
  ASSERT_TRUE(serviceUntilConnections(1));
  EXPECT_FALSE(ask("logo", uri("/second"), {{"timeoutMs", 0}}));
  EXPECT_EQ(told(2), "REFUSED: The request gives no time-out (timeoutMs).");
  platform().nowMs += 1;
  ASSERT_TRUE(serviceUntilEnd(1));
  EXPECT_EQ(told(1), std::string("TRANSFER_TIMEOUT: ") + kTakenOver +
                         "the deadline of 0 ms passed when 0 bytes were transferred.");
}

}  // namespace
}  // namespace kova::ctlserver
