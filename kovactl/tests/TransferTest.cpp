#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include "Child.h"
#include "Json.h"
#include "Kinds.h"
#include "Peer.h"
#include "kova/messages/Events.h"

namespace kova::ctl::testing {
namespace {

using ipc::messages::EventTransferRequestStatus;
using ipc::messages::EventUpdateFirmwareFailure;
using ::testing::HasSubstr;
using variant::Variant;

constexpr const char* kDigest = "900150983cd24fb0d6963f7d28e17f72";

class Transfers : public BusTest {};

void sendStatus(Peer::Request& request, ipc::Ipc& ipc, std::uint64_t id, const char* status) {
  EventTransferRequestStatus event;
  event.to(request.from());
  event.requestId(id);
  event.status(status);
  EXPECT_TRUE(ipc.SendRequest(event));
}

// Sends the event with this outcome to the requester, as the camera does.
Peer::Script ending(const char* status) {
  return [status](Peer::Request& request, ipc::Ipc& ipc, bool&) {
    sendStatus(request, ipc, request.id(), status);
  };
}

std::vector<std::string> putLogo(const std::string& seconds) {
  return {"put", "logo", "http://x/logo", "--hash", kDigest, "--timeout", seconds, "--wait"};
}

TEST_F(Transfers, WaitReturns0ForOk) {
  Peer peer(ending("OK"));
  expectOutput(run(putLogo("10")), 0, "OK\n");
  Peer::Request request = peer.received().front();
  // The message id makes it unique: process ids repeat among containers.
  EXPECT_THAT(request.from(),
              ::testing::MatchesRegex("client\\.kovactl_[0-9]+_" + std::to_string(request.id())));
  EXPECT_EQ(request.find("what")->toText(), "logo");
  EXPECT_EQ(request.find("uri")->toText(), "http://x/logo");
  EXPECT_EQ(request.find("hash")->toText(), kDigest);
  EXPECT_EQ(*request.find("timeoutMs"), Variant(std::uint32_t{10000}));
}

TEST_F(Transfers, WaitPrintsOutcomeAsJson) {
  Peer peer(ending("TRANSFER_TOOLARGE"));
  auto arguments = putLogo("10");
  arguments.push_back("--json");
  const Result result = run(arguments);
  EXPECT_EQ(result.status, 1);
  const Variant document = jsonOf(result.out);
  EXPECT_EQ(*document.find("ok"), Variant(false));
  EXPECT_EQ(*document.find("result"),
            (Variant(Variant::Map{{"id", Variant()},
                                  {"requestId", std::to_string(peer.received().front().id())},
                                  {"outcome", "TRANSFER_TOOLARGE"},
                                  {"reason", ""}})));
}

TEST_F(Transfers, SilenceIsExplainedWithStatus5) {
  Peer peer([](Peer::Request& request, ipc::Ipc& ipc, bool&) {
    sendStatus(request, ipc, request.id() + 1, "OK");
  });
  expectFailure(run(putLogo("0.1")), 5, "the camera already has this file");
  const Result get = run({"get", "snapshot", "http://x/", "--timeout", "0.1", "--wait", "--json"});
  EXPECT_EQ(get.status, 5);
  EXPECT_THAT(get.err, HasSubstr("the upload succeeded, was refused"));
  EXPECT_THAT(get.out, HasSubstr("\"outcome\": \"unknown\""));
  expectFailure(run({"firmware", "http://x/", "--timeout", "0.1", "--wait"}), 5,
                "flashing succeeded, is in progress, or was refused");
}

TEST_F(Transfers, HelpExplainsSilence) {
  const std::pair<const char*, const char*> meanings[] = {
      {"put", "the camera already has this file, refused the request"},
      {"get", "the upload succeeded, was refused"},
      {"firmware",
       "No event: flashing succeeded, is in progress, or was refused; see the camera's log."}};
  setenv("COLUMNS", "1000", 1);  // no line breaks
  for (const auto& [command, meaning] : meanings) {
    const Result help = run({command, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, HasSubstr("No event: "));
    EXPECT_THAT(help.out, HasSubstr(meaning)) << command;
    EXPECT_THAT(help.out, HasSubstr("--timeout"));
  }
  unsetenv("COLUMNS");
}

TEST_F(Transfers, FirmwareFailureIsReported) {
  Peer peer([](Peer::Request& request, ipc::Ipc& ipc, bool&) {
    EventUpdateFirmwareFailure event;
    event.to(request.from());
    event.requestId(request.id());
    event.reason("FW_CHECK_INCOMPAT_HW");
    EXPECT_TRUE(ipc.SendRequest(event));
  });
  expectError(run({"firmware", "http://x/fw.bin", "--wait"}), 1,
              "kovactl: the transfer failed: FW_CHECK_INCOMPAT_HW\n");
  EXPECT_EQ(*peer.received().front().find("timeoutMs"), Variant(std::uint32_t{600000}));
}

TEST_F(Transfers, ExitsOnAcceptanceWithoutWait) {
  Peer peer(takingNote());
  EXPECT_EQ(run({"put", "sound", "http://x/s.wav", "--hash", kDigest}).status, 0);
  EXPECT_EQ(run({"firmware", "http://x/fw.bin"}).status, 0);
  EXPECT_EQ(run({"get", "support", "http://x/"}).status, 0);
  const auto received = peer.received();
  ASSERT_EQ(received.size(), 3U);
  // The camera refuses requests that name no recipient for events.
  EXPECT_EQ(received[0].find("from")->toText(), "client.kovactl");
  EXPECT_EQ(received[1].find("from")->toText(), "client.kovactl");
  EXPECT_EQ(*received[2].find("disableEvents"), Variant(true));
  EXPECT_EQ(received[2].find("what")->toText(), "supportInfo");
}

TEST_F(Transfers, DigestIsComputedOrLowerCased) {
  Peer peer(takingNote());
  const std::string file = KOVACTL_TEST_DATA "/abc.txt";
  EXPECT_EQ(run({"put", "logo", "http://x/", "--file", file}).status, 0);
  EXPECT_EQ(run({"put", "logo", "http://x/", "--hash", "900150983CD24FB0D6963F7D28E17F72"}).status,
            0);
  for (const Peer::Request& request : peer.received()) {
    EXPECT_EQ(request.find("hash")->toText(), kDigest);
  }
  expectError(run({"put", "logo", "http://x/", "--file", "/nonexistent/logo"}), 6,
              "kovactl: cannot read /nonexistent/logo: No such file or directory\n");
}

TEST_F(Transfers, UploadCarriesFileNameAndFormFields) {
  Peer peer(takingNote());
  EXPECT_EQ(run({"get", "event-heatmap", "http://x/", "--filename", "heatmap_1.png", "--field",
                 "a=b=c", "--field", "d="})
                .status,
            0);
  const Peer::Request request = peer.received().front();
  EXPECT_EQ(request.find("what")->toText(), "eventHeatmap");
  EXPECT_EQ(request.find("filename")->toText(), "heatmap_1.png");
  EXPECT_EQ(*request.find("formFields"), (Variant(Variant::Map{{"a", "b=c"}, {"d", ""}})));
  EXPECT_EQ(*request.find("timeoutMs"), Variant(std::uint32_t{90000}));
}

TEST_F(Transfers, UploadKindsSendTheirRequests) {
  Peer peer(takingNote());
  std::vector<std::string> sent;
  for (const std::vector<std::string>& typed :
       {std::vector<std::string>{"snapshot"},
        {"support"},
        {"event-snapshot", "--filename", "motionsnap_1.jpg"},
        {"event-heatmap", "--filename", "heatmap_1.png"}}) {
    std::vector<std::string> arguments = {"get", "--timeout", "7", "http://x/"};
    arguments.insert(arguments.begin() + 1, typed.begin(), typed.end());
    EXPECT_EQ(run(arguments).status, 0) << typed.front();
    const Peer::Request request = peer.received().back();
    EXPECT_EQ(*request.find("timeoutMs"), Variant(std::uint32_t{7000}));
    sent.push_back(request.find("what")->toText());
  }
  EXPECT_EQ(sent, kindsOf("GetRequest"));
}

TEST_F(Transfers, DownloadKindsSendTheirRequests) {
  Peer peer(takingNote());
  ASSERT_FALSE(kindsOf("PutRequest").empty());
  for (const std::string& kind : kindsOf("PutRequest")) {
    EXPECT_EQ(run({"put", kind, "http://x/", "--hash", kDigest}).status, 0) << kind;
    EXPECT_EQ(peer.received().back().find("what")->toText(), kind);
  }
}

TEST_F(Transfers, UnknownFunctionAndAbsentCameraFailAtOnce) {
  EXPECT_EQ(run(putLogo("60")).status, 3);
  Peer peer([](Peer::Request&, ipc::Ipc&, bool& rejected) { rejected = true; });
  EXPECT_EQ(run(putLogo("60")).status, 1);
}

TEST_F(Transfers, BusClosedWhileWaitingGivesStatus3) {
  Peer peer(takingNote());
  Child child(putLogo("60"));
  ASSERT_TRUE(peer.awaitReceived(1));
  bus_.kill();
  EXPECT_EQ(child.wait().status, 3);
}

TEST_F(Transfers, SpinnerIsErasedOnTerminal) {
  Peer peer(takingNote());
  Child child(putLogo("60"), Child::On::Terminal);
  ASSERT_TRUE(child.awaitOutput("waiting for the camera  0 s"));
  ASSERT_TRUE(child.awaitOutput("waiting for the camera  1 s"));
  child.write("\x03");
  const Result result = child.wait();
  EXPECT_EQ(result.status, 130);
  EXPECT_THAT(result.out, HasSubstr("\r\x1b[Kkovactl: no transfer to cancel is known"));
}

}  // namespace
}  // namespace kova::ctl::testing
