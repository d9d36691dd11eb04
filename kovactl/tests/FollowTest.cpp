#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <optional>

#include "../../platform/utils/process/tests/Script.h"
#include "Child.h"
#include "FakeCamera.h"
#include "Json.h"
#include "Peer.h"
#include "kova/messages/Events.h"

namespace kova::ctl::testing {
namespace {

using namespace std::string_literals;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using variant::Variant;

constexpr const char* kLogoDigest = "900150983cd24fb0d6963f7d28e17f72";

std::vector<std::string> putLogo(const std::vector<std::string>& more = {"--wait"},
                                 const std::string& seconds = "60") {
  std::vector<std::string> arguments = {"put",       "logo",      "http://x/logo", "--hash",
                                        kLogoDigest, "--timeout", seconds};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

std::uint64_t idOf(const Variant& request) {
  return request.find("id")->toNumber<std::uint64_t>();
}

// Publishes transfer 7 in this state.
FakeCamera::Script publishing(const FakeCamera::Properties& state) {
  return [state](FakeCamera& camera, const Variant& request) {
    FakeCamera::Properties properties = state;
    properties["RequestId"] = idOf(request);
    camera.publish("7", properties);
  };
}

FakeCamera::Script endingAs(const std::string& outcome, const std::string& reason) {
  return publishing({{"Phase", "ended"}, {"Outcome", outcome}, {"Reason", reason}});
}

FakeCamera::Script transferring() {
  return publishing({{"Phase", "transferring"},
                     {"Kind", "logo"},
                     {"Transferred", std::uint64_t{512}},
                     {"Size", std::uint64_t{1024}}});
}

// Sends the event with the outcome of a request to its sender, over a separate connection.
void sendStatus(const Variant& request, const char* status) {
  ipc::Ipc ipc;
  ASSERT_TRUE(ipc.Init("", false, nullptr));
  ipc::messages::EventTransferRequestStatus event;
  event.to(request.find("from")->toText());
  event.requestId(idOf(request));
  event.status(status);
  EXPECT_TRUE(ipc.SendRequest(event));
  EXPECT_TRUE(ipc.flush());
}

/// A script that carries connections to the bus, as ssh does, and records its process ids.
class Carrier {
 public:
  /// @param most the number of connections that it carries; further ones fail
  Carrier(const std::string& bus, int most) {
    const std::string enough = "[ \"$(cat '" + pids() + "' 2>/dev/null | wc -l)\" -lt ";
    writeScript(folder_, "carry",
                enough + std::to_string(most) + " ] || exit 1\necho $$ >>'" + pids() + "'\n" +
                    bridgeCommand(bus));
  }

  std::string address() const { return "unixexec:path=" + folder_ / "carry"; }
  std::vector<pid_t> carrying() const {
    std::vector<pid_t> carrying;
    std::ifstream file(pids());
    for (pid_t pid = 0; file >> pid;) {
      carrying.push_back(pid);
    }
    return carrying;
  }

 private:
  std::string pids() const { return folder_ / "pids"; }

  tests::TemporaryFolder folder_;
};

class Follow : public BusTest {
 protected:
  // Starts a camera that transfers, and a kovactl that follows that.
  void follow(const std::vector<std::string>& arguments = putLogo()) {
    camera_.emplace(transferring());
    child_.emplace(arguments);
    ASSERT_TRUE(child_->awaitError("transferring\n"));
  }
  // A restarted control server numbers its transfers from 1 again.
  void restartServer() {
    camera_.emplace();
    camera_->publish("7", {{"RequestId", std::uint64_t{1}}, {"Phase", "transferring"}});
  }

  std::optional<FakeCamera> camera_;
  std::optional<Child> child_;
};

TEST_F(Follow, SuccessExitsWithStatus0) {
  const std::pair<const char*, const char*> successes[] = {
      {"OK", "OK: The logo is installed.\n"},
      {"ALREADY_INSTALLED", "ALREADY_INSTALLED: The logo is installed.\n"}};
  for (const auto& [outcome, shown] : successes) {
    const FakeCamera camera(endingAs(outcome, "The logo is installed."));
    for (const char* wait : {"--wait", "--json"}) {
      const Result result = run(putLogo({wait}));
      EXPECT_EQ(result.status, 0) << result.err;
      if (wait == "--wait"s) {
        EXPECT_EQ(result.out, shown);
      } else {
        EXPECT_EQ(jsonOf(result.out).find("result")->find("outcome")->toText(), outcome);
      }
    }
  }
}

TEST_F(Follow, RefusalIsReportedWithAndWithoutWait) {
  const FakeCamera camera(endingAs("REFUSED", "A transfer from this URI\nis running."));
  for (const std::vector<std::string>& more : {std::vector<std::string>{}, {"--wait"}}) {
    expectError(
        run(putLogo(more)), 1,
        "kovactl: the camera refused the transfer: A transfer from this URI\\nis running.\n");
  }
}

TEST_F(Follow, CancellationIsReportedOnce) {
  const FakeCamera camera(endingAs("CANCELLED", "The transfer was cancelled on request."));
  EXPECT_EQ(run(putLogo()).err, "kovactl: the transfer was cancelled\n");
}

TEST_F(Follow, MissingCertificateGetsAdvice) {
  const FakeCamera camera(
      endingAs("TRANSFER_FAILED", "Could not load /etc/persistent/server.pem."));
  EXPECT_THAT(run(putLogo()).err,
              EndsWith("Could not load /etc/persistent/server.pem. The camera has no usable "
                       "/etc/persistent/server.pem: adopt the camera (docs/adopting.md).\n"));
}

TEST_F(Follow, OutcomeEndsWaitAtOnce) {
  follow();
  camera_->change("7", {{"Phase", "finalising"}});
  ASSERT_TRUE(child_->awaitError("finalising\n"));
  camera_->change("7", {{"Phase", "ended"}, {"Outcome", "OK"}});
  const Result result = child_->wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "OK\n");
  EXPECT_EQ(result.err, "transferring\nfinalising\n");
}

TEST_F(Follow, UploadsAndFirmwareAreFollowedToo) {
  const FakeCamera camera(endingAs("OK", ""));
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"get", "snapshot", "http://x/", "--wait"},
        {"firmware", "http://x/fw.bin", "--wait"}}) {
    expectOutput(run(arguments), 0, "OK\n");
  }
}

TEST_F(Follow, WithoutWaitNumberIsPrinted) {
  const FakeCamera camera(transferring());
  expectOutput(run(putLogo({})), 0,
               "The camera accepted transfer 7; \"kovactl transfers\" shows its progress.\n");
  const Variant json = jsonOf(run(putLogo({"--json"})).out);
  EXPECT_EQ(*json.find("ok"), Variant(true));
  EXPECT_EQ(json.find("result")->find("id")->toText(), "7");
  EXPECT_EQ(json.find("result")->find("requestId")->toText(),
            std::to_string(idOf(camera.lastRequest())));
  EXPECT_EQ(json.find("result")->find("outcome")->toText(), "accepted");
}

TEST_F(Follow, JsonHasOutcomeAndError) {
  const FakeCamera camera(endingAs("VALIDATION_FAILED", "It is no picture."));
  const Result result = run(putLogo({"--wait", "--json"}));
  EXPECT_EQ(result.status, 1);
  const Variant json = jsonOf(result.out);
  EXPECT_EQ(*json.find("ok"), Variant(false));
  EXPECT_EQ(json.find("error")->find("code")->toText(), "refused");
  EXPECT_EQ(json.find("error")->find("text")->toText(),
            "the transfer failed: VALIDATION_FAILED: It is no picture.");
  EXPECT_EQ(result.err, "kovactl: the transfer failed: VALIDATION_FAILED: It is no picture.\n");
  EXPECT_EQ(json.find("result")->find("reason")->toText(), "It is no picture.");
}

TEST_F(Follow, TerminalShowsBarAndErasesIt) {
  FakeCamera camera(transferring());
  Child child(putLogo(), Child::On::Terminal);
  ASSERT_TRUE(child.awaitOutput(" 50 %  [")) << child.out();
  ASSERT_TRUE(child.awaitOutput("512 B of 1.0 KiB"));
  camera.change("7", {{"Phase", "finalising\x1b[2J"}});
  ASSERT_TRUE(child.awaitOutput("finalising\\x1b[2J"));
  camera.change("7", {{"Phase", "ended"}, {"Outcome", "OK"}});
  const Result result = child.wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, EndsWith("\r\x1b[KOK\r\n"));
}

TEST_F(Follow, SentUploadWaitsForAnswerOfServer) {
  FakeCamera camera(transferring());
  Child child({"get", "snapshot", "http://x/", "--wait"}, Child::On::Terminal);
  ASSERT_TRUE(child.awaitOutput("512 B of 1.0 KiB"));
  camera.change("7", {{"Direction", "up"}, {"Transferred", std::uint64_t{1024}}});
  ASSERT_TRUE(child.awaitOutput("sent, waiting for the server's answer  "));
  camera.change("7", {{"Phase", "ended"}, {"Outcome", "OK"}});
  EXPECT_EQ(child.wait().status, 0);
}

TEST_F(Follow, StopShowsHowToCancel) {
  follow();
  child_->signal(SIGINT);
  expectFailure(child_->wait(), 130,
                "the camera goes on with transfer 7: \"kovactl transfers\" shows it, \"kovactl "
                "cancel 7\" cancels it");
  EXPECT_TRUE(camera_->cancelled().empty());
}

TEST_F(Follow, StopCancelsOnRequest) {
  follow(putLogo({"--wait", "--cancel"}));
  child_->signal(SIGINT);
  expectFailure(child_->wait(), 130, "transfer 7 is cancelled");
  EXPECT_EQ(camera_->cancelled(), std::vector<std::string>{"7"});
  expectFailure(run(putLogo({"--cancel"})), 2, "--cancel needs --wait");
}

TEST_F(Follow, ServerThatEndsLeavesOutcomeUnknown) {
  follow();
  camera_.reset();
  expectFailure(child_->wait(), 5, "the control server ended while it was transferring");
}

TEST_F(Follow, TransferOfNextServerIsNotFollowed) {
  follow();
  restartServer();
  camera_->change("7", {{"Phase", "ended"}, {"Outcome", "OK"}});
  const Result result = child_->wait();
  expectOutput(result, 5, "");
  EXPECT_THAT(result.err, HasSubstr("the control server ended while it was transferring"));
}

TEST_F(Follow, StopCancelsNoTransferOfNextServer) {
  follow(putLogo({"--wait", "--cancel"}));
  child_->signal(SIGSTOP);
  restartServer();
  child_->signal(SIGINT);
  child_->signal(SIGCONT);
  expectFailure(child_->wait(), 130, "the control server has ended, and transfer 7 with it");
  EXPECT_TRUE(camera_->cancelled().empty());
}

TEST_F(Follow, ForgottenTransferLeavesOutcomeUnknown) {
  follow();
  camera_->forget("7");
  expectFailure(child_->wait(), 5,
                "the control server forgot transfer 7 while it was transferring");
}

TEST_F(Follow, EventDecidesForForgottenTransfer) {
  const std::pair<const char*, int> outcomes[] = {{"OK", 0}, {"VALIDATION_FAILED", 1}};
  for (const auto& [status, exit] : outcomes) {
    follow();
    sendStatus(camera_->lastRequest(), status);
    camera_->forget("7");
    const Result result = child_->wait();
    EXPECT_EQ(result.status, exit) << result.err;
    EXPECT_THAT(result.out + result.err, HasSubstr(status));
  }
}

TEST_F(Follow, LostConnectionLeavesOutcomeUnknown) {
  const Carrier carrier(bus_.address(), 2);
  follow(putLogo({"--wait", "--bus", carrier.address()}));
  ASSERT_EQ(carrier.carrying().size(), 2U);
  kill(carrier.carrying().back(), SIGKILL);
  expectFailure(child_->wait(), 5, "the connection that follows transfer 7 was lost");
}

TEST_F(Follow, NothingIsSentWithoutSecondConnection) {
  const FakeCamera camera(endingAs("OK", ""));
  for (const char* mode : {"--wait", "--json"}) {
    const Carrier carrier(bus_.address(), 1);
    const Result result = run(putLogo({mode, "--bus", carrier.address()}));
    EXPECT_EQ(result.status, 3);
    EXPECT_NE(result.err, "");
  }
  EXPECT_TRUE(camera.lastRequest().isEmpty());
}

TEST_F(Follow, StopWithoutTransferIsExplained) {
  Peer peer(takingNote());
  Child child(putLogo({"--wait", "--cancel"}));
  ASSERT_TRUE(peer.awaitReceived(1));
  child.signal(SIGINT);
  expectFailure(child.wait(), 130, "no transfer to cancel is known");
}

TEST_F(Follow, TimeOutDoesNotCoverTools) {
  follow(putLogo({"--wait"}, "0.1"));
  camera_->finalise("7", 3000);  // longer than the time-out and the grace period
  const Result result = child_->wait();
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "transferring\nfinalising\n") << "known from the signal alone";
  EXPECT_EQ(result.out, "OK\n");
}

TEST_F(Follow, TimeOutNamesPhase) {
  const FakeCamera camera(transferring());
  expectFailure(run(putLogo({"--wait"}, "0.1")), 5, "the camera is still transferring");
}

TEST_F(Follow, TransfersOfOthersAreNotFollowed) {
  const FakeCamera camera([](FakeCamera& self, const Variant& request) {
    self.publish("7", {{"RequestId", idOf(request) + 1}, {"Phase", "ended"}, {"Outcome", "OK"}});
    self.publish("8", {{"RequestId", idOf(request)}, {"Phase", "ended"}, {"Outcome", "REFUSED"}});
  });
  EXPECT_EQ(run(putLogo()).status, 1);
}

}  // namespace
}  // namespace kova::ctl::testing
