#include "RoutingFixture.h"

namespace kova::ctlserver {
namespace {

class TransferFieldsTest : public TransferRoutingTest {};

// libcurl accepts less than 2147484 s; above that only the daemon's own deadline applies.
TEST_F(TransferFieldsTest, EveryRequestOverwritesTimeOut) {
  for (const std::string kind : kKinds) {
    for (const std::uint32_t timeoutMs : {1U, 999U, 5000U, 2147483999U, 2147484000U, 4294967295U}) {
      SCOPED_TRACE(kind + " " + std::to_string(timeoutMs));
      startServer();
      peerHolds();
      writeUploads("");
      ASSERT_TRUE(ask(kind, uri(), {{"timeoutMs", timeoutMs}}));
      platform().nowMs += timeoutMs;
      server_->service(0);
      EXPECT_THAT(events(), IsEmpty());
      platform().nowMs += 1;
      server_->service(0);
      EXPECT_THAT(events(),
                  ElementsAre(kind == "fw" ? "EventUpdateFirmwareFailure to=client.a id=7 "
                                             "TRANSFER_TIMEOUT"
                                           : status("TRANSFER_TIMEOUT")));
    }
  }
}

TEST_F(TransferFieldsTest, ZeroOrMissingTimeOutIsRefused) {
  for (const std::string kind : kTransferKinds) {
    for (const Variant& timeoutMs : {Variant(0), Variant("5000"), Variant()}) {
      startServer();
      EXPECT_FALSE(ask(kind, uri(), {{"timeoutMs", timeoutMs}}));
      EXPECT_THAT(logged(), ElementsAre("3 BaseTransferTask.start: Timeout must be set",
                                        "3 TransferService.add: Failed to start task, task=" +
                                            taskName(kind) + ", uri=" + uri()));
      EXPECT_THAT(events(), IsEmpty());
    }
  }
}

TEST_F(TransferFieldsTest, FirmwareUpdateTimesOutAfterHalfHourByDefault) {
  peerHolds();
  for (const Variant& timeoutMs : {Variant(0), Variant("5000"), Variant()}) {
    startServer();
    ASSERT_TRUE(ask("fw", uri(), {{"timeoutMs", timeoutMs}}));
    platform().nowMs += 1800000;
    server_->service(0);
    EXPECT_THAT(events(), IsEmpty());
    platform().nowMs += 1;
    server_->service(0);
    EXPECT_THAT(events(),
                ElementsAre("EventUpdateFirmwareFailure to=client.a id=7 TRANSFER_TIMEOUT"));
  }
}

TEST_F(TransferFieldsTest, EventsOfOneGetCanBeDisabled) {
  write("/tmp/snap.jpeg", "picture");
  const std::string dead = deadUri();
  ASSERT_TRUE(ask("snapshot", dead, {{"disableEvents", true}}));
  const auto failures = [] {
    return std::ranges::count_if(platform().log, [](const LogLine& line) {
      return line.text.starts_with("Transfer task failed, name=snapshot");
    });
  };
  ASSERT_TRUE(serviceUntil([&] { return failures() == 1; }));
  EXPECT_THAT(events(), IsEmpty());
  ASSERT_TRUE(ask("snapshot", dead));
  ASSERT_TRUE(serviceUntilEvent());
  EXPECT_THAT(events(), ElementsAre(status("TRANSFER_FAILED")));
}

TEST_F(TransferFieldsTest, SenderMayBeMissingOnlyWithoutEvents) {
  EXPECT_FALSE(ask("snapshot", uri(), {{"from", ""}}));
  EXPECT_TRUE(platform().logged(3, "IPC origin must be set when sending events is on"));
  EXPECT_TRUE(ask("snapshot", uri(), {{"from", ""}, {"disableEvents", true}}));
  EXPECT_FALSE(ask("logo", uri("/logo"), {{"from", ""}, {"disableEvents", true}}))
      << "put requests have no such field";
}

TEST_F(TransferFieldsTest, InstalledLogoIsNotInstalledSound) {
  write("/etc/persistent/user_logo.md5", kContentDigest);
  ASSERT_TRUE(ask("sound", uri(), {{"hash", kContentDigest}}));
  EXPECT_FALSE(ask("logo", uri(), {{"hash", "other"}})) << "the sound uses the URI";
}

}  // namespace
}  // namespace kova::ctlserver
