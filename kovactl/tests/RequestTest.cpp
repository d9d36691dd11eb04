#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <future>

#include "Child.h"
#include "FakeCamera.h"
#include "Json.h"
#include "Peer.h"

namespace kova::ctl::testing {
namespace {

using ::testing::HasSubstr;
using variant::Variant;

class Requests : public BusTest {};

TEST_F(Requests, StatusOfAnswerWithoutIdCounts) {
  FakeCamera camera;
  camera.behave({.answer = Variant::Map{{"statusCode", 1}}});
  expectOutput(run({"save", "--sync"}), 1, "");
}

// The connection ends while kovactl is stopped, so it finds the answer and the EOF together.
TEST_F(Requests, AnswerBeforeLossOfBusCounts) {
  std::promise<void> asleep;
  std::promise<void> answered;
  Peer peer([&](Peer::Request& request, ipc::Ipc& ipc, bool& rejected) {
    asleep.get_future().wait_for(std::chrono::seconds(20));
    answering(0)(request, ipc, rejected);
    EXPECT_TRUE(ipc.flush());
    answered.set_value();
  });
  Child child({"save", "--sync"});
  ASSERT_TRUE(peer.awaitReceived(1));
  child.signal(SIGSTOP);
  asleep.set_value();
  ASSERT_EQ(answered.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  bus_.kill();
  child.signal(SIGCONT);
  expectOutput(child.wait(), 0, "Saved to flash.\n");
}

TEST_F(Requests, CallPrintsPayload) {
  Peer peer(answering(0, Variant::Map{{"a", Variant::Map{{"b", "c\x1b"}}}, {"n", 5}}));
  const Result result = run({"call", "Anything", "text=12", "number:=12"});
  expectOutput(result, 0, "a.b  c\\x1b\nn    5\n");
  EXPECT_EQ(result.err, "");
  ASSERT_EQ(peer.received().size(), 1U);
  Peer::Request request = peer.received().front();
  EXPECT_EQ(request.functionName(), "Anything");
  EXPECT_EQ(*request.find("text"), Variant("12"));
  EXPECT_EQ(*request.find("number"), Variant(std::int32_t{12}));
  EXPECT_TRUE(request.responseExpected());
}

TEST_F(Requests, CallPrintsWholeAnswerAsJson) {
  Peer peer(answering(0, Variant::Map{{"n", 5}}));
  const Result result = run({"call", "Anything", "--json", "id:=77"});
  EXPECT_EQ(result.status, 0);
  const Variant document = jsonOf(result.out);
  EXPECT_EQ(*document.find("ok"), Variant(true));
  EXPECT_TRUE(document.find("error")->isEmpty());
  const Variant answer = *document.find("result");
  EXPECT_EQ(answer.find("functionName")->toText(), "__response__");
  EXPECT_EQ(answer.find("requestId")->toText(), "77");
  EXPECT_EQ(answer.find("payload")->find("n")->toNumber<int>(), 5);
}

TEST_F(Requests, FailuresHaveSameShapeAsJson) {
  const std::pair<std::vector<std::string>, const char*> failures[] = {
      {{"stats", "--json"}, "unreachable"},
      {{"call", "--json"}, "usage"},
      {{"--json", "nonsense"}, "usage"},
      {{"stats", "--json", "--host", "a", "--bus", "x"}, "usage"},
      {{"timezones", "--json", "--bus", "x", "--timeout", "0"}, "usage"},
      {{"put", "logo", "http://x/", "--file", "/nonexistent", "--json"}, "local"}};
  for (const auto& [arguments, code] : failures) {
    const Result result = run(arguments);
    EXPECT_NE(result.status, 0);
    const Variant document = jsonOf(result.out);
    EXPECT_EQ(*document.find("ok"), Variant(false)) << code;
    EXPECT_TRUE(document.find("result")->isEmpty());
    EXPECT_EQ(document.find("error")->find("code")->toText(), code);
    EXPECT_THAT(result.err,
                HasSubstr("kovactl: " + document.find("error")->find("text")->toText()));
  }
  Peer peer(answering(1, Variant::Map{{"partial", 5}}));
  const Result result = run({"call", "Anything", "--json"});
  EXPECT_EQ(result.status, 1);
  const Variant document = jsonOf(result.out);
  EXPECT_EQ(document.find("error")->find("code")->toText(), "refused");
  EXPECT_EQ(document.find("result")->find("payload")->find("partial")->toNumber<int>(), 5);
}

TEST_F(Requests, CommandsWithoutResultPrintNull) {
  Peer peer(takingNote());
  const Variant document = jsonOf(run({"save", "--json"}).out);
  EXPECT_EQ(*document.find("ok"), Variant(true));
  EXPECT_TRUE(document.find("result")->isEmpty());
}

TEST_F(Requests, EmptyAnswerIsSuccess) {
  Peer peer(takingNote());
  EXPECT_EQ(run({"call", "Anything"}).out,
            "Delivered; the answer is empty and does not show the outcome (\"kovactl transfers\" "
            "shows that of a transfer).\n");
  const Result result = run({"call", "Anything", "--json"});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(jsonOf(result.out).find("result")->isEmpty());
}

TEST_F(Requests, RefusalGivesStatus1AndOneLine) {
  Peer peer(answering(1));
  expectError(run({"call", "SaveToFlash"}), 1,
              "kovactl: the camera could not save the configuration\n");
  EXPECT_EQ(run({"call", "Other"}).err,
            "kovactl: \"kova_ctlserver\" refused Other or failed to carry it out (status 1)\n");
}

TEST_F(Requests, UnknownFunctionGivesStatus1) {
  Peer peer([](Peer::Request&, ipc::Ipc&, bool& rejected) { rejected = true; });
  expectError(run({"call", "Nonsense"}), 1,
              "kovactl: \"kova_ctlserver\" has no function Nonsense\n");
}

TEST_F(Requests, AbsentEndpointGivesStatus3) {
  expectError(run({"call", "Anything", "--to", "kova_nobody"}), 3,
              "kovactl: \"kova_nobody\" is not on the bus: is it running?\n");
  EXPECT_EQ(run({"call", "Anything", "--to", "no.valid..name"}).status, 3);
}

TEST_F(Requests, BusOptionOverridesEnvironment) {
  Peer peer(answering(0));
  setenv("KOVA_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  EXPECT_EQ(run({"call", "Anything"}).status, 3);
  EXPECT_EQ(run({"call", "Anything", "--bus", bus_.address()}).status, 0);
  setenv("KOVA_BUS_ADDRESS", bus_.address().c_str(), 1);
}

TEST_F(Requests, TimeoutGivesStatus4) {
  MutePeer peer;
  expectError(run({"--timeout", "0.3", "call", "Anything"}), 4,
              "kovactl: no answer from \"kova_ctlserver\" to Anything within 0.3 s\n");
}

TEST_F(Requests, VanishedEndpointGivesStatus4) {
  auto peer = std::make_unique<MutePeer>();
  Child child({"call", "Anything"});
  ASSERT_TRUE(peer->awaitRequest());
  peer.reset();
  expectFailure(child.wait(), 4, "Anything failed: ");
}

TEST_F(Requests, ClosedBusGivesStatus3) {
  MutePeer peer;
  Child child({"call", "Anything"});
  ASSERT_TRUE(peer.awaitRequest());
  bus_.kill();
  expectError(child.wait(), 3, "kovactl: the connection to the bus was lost\n");
}

TEST_F(Requests, NoReplyDoesNotWait) {
  Peer peer(takingNote());
  expectOutput(run({"call", "Anything", "--no-reply"}), 0, "");
  ASSERT_TRUE(peer.awaitReceived(1));
  EXPECT_FALSE(peer.received().front().responseExpected());
  EXPECT_EQ(run({"call", "Anything", "responseExpected:=false"}).status, 0);
  ASSERT_TRUE(peer.awaitReceived(2));
  EXPECT_FALSE(peer.received().back().responseExpected());
}

TEST_F(Requests, CallSetsSender) {
  Peer peer(answering(0));
  EXPECT_EQ(run({"call", "Anything", "--from", "client.else"}).status, 0);
  ASSERT_EQ(peer.received().size(), 1U);
  EXPECT_EQ(peer.received().front().from(), "client.else");
}

TEST_F(Requests, SignalsStopWait) {
  for (const auto& [signal, status] : {std::pair{SIGINT, 130}, {SIGTERM, 143}}) {
    MutePeer peer;
    Child child({"call", "Anything"});
    ASSERT_TRUE(peer.awaitRequest());
    child.signal(signal);
    EXPECT_EQ(child.wait().status, status);
  }
}

TEST_F(Requests, SimpleCommandsSendRequests) {
  Peer peer(answering(0, Variant::Map{{"timelapseminutes", 1}}));
  const std::vector<std::pair<std::vector<std::string>, std::string>> table{
      {{"save"}, R"({"functionName":"SaveToFlash","sync":false})"},
      {{"save", "--sync"}, R"({"functionName":"SaveToFlash","sync":true})"},
      {{"reboot", "--delay", "1.5"}, R"({"functionName":"Reboot","delayMs":1500})"},
      {{"reboot", "--delay", "100ms"}, R"({"functionName":"Reboot","delayMs":100})"},
      {{"reboot", "--delay", "2min"}, R"({"functionName":"Reboot","delayMs":120000})"},
      {{"reset-defaults", "--yes"}, R"({"functionName":"ResetToDefaults"})"},
      {{"reset-settings"}, R"({"functionName":"ResetDeviceSettings"})"},
      {{"service", "start", "ssh"},
       R"({"functionName":"StartService","service":"ssh","from":"kovactl"})"},
      {{"service", "stop", "ssh"},
       R"({"functionName":"StopService","service":"ssh","from":"kovactl"})"},
      {{"exit-service"}, R"({"functionName":"ExitService"})"},
      {{"user", "enable"}, R"({"functionName":"EnableUsernamePassword"})"},
      {{"user", "disable"}, R"({"functionName":"DisableUsernamePassword"})"},
      {{"settings", "name=Porch", "timelapse=on", "sound-on-boot=off", "region="},
       R"({"functionName":"ChangeDeviceSettings","name":"Porch","timelapseminutes":1,
           "soundOnBoot":false,"region":"","timezone":"_UNINITIALIZED_"})"},
  };
  for (const auto& [arguments, expected] : table) {
    const Result result = run(arguments);
    EXPECT_EQ(result.status, 0) << arguments.front() << result.err;
    const Peer::Request request = peer.received().back();
    const Variant fields = jsonOf(expected);
    for (const auto& [key, value] : fields.elements()) {
      ASSERT_NE(request.find(key), nullptr) << key;
      EXPECT_EQ(request.find(key)->toJson(), value.toJson()) << key;
    }
  }
  EXPECT_EQ(peer.received().size(), table.size());
}

TEST_F(Requests, SettingsOfRefusalAreNotShown) {
  const Variant payload = Variant::Map{{"name", "Porch"}, {"timezone", "UTC"}};
  {
    Peer peer(answering(0, payload));
    EXPECT_EQ(run({"settings"}).out, "Name       Porch\nTime zone  UTC\n");
  }
  Peer peer(answering(1, payload));
  const Result result = run({"settings", "region=x"});
  expectOutput(result, 1, "");
  EXPECT_THAT(result.err, HasSubstr("a value was rejected"));
}

TEST_F(Requests, ResetDefaultsPromptsOnTerminal) {
  Peer peer(answering(0));
  Child refuser({"reset-defaults"}, Child::On::Terminal);
  ASSERT_TRUE(refuser.awaitOutput("[y/N] "));
  refuser.write("n\n");
  EXPECT_EQ(refuser.wait().status, 6);
  EXPECT_TRUE(peer.received().empty());
  Child accepter({"reset-defaults"}, Child::On::Terminal);
  ASSERT_TRUE(accepter.awaitOutput("[y/N] "));
  accepter.write("y\n");
  EXPECT_EQ(accepter.wait().status, 0);
  EXPECT_EQ(peer.received().size(), 1U);
}

TEST_F(Requests, WriteErrorGivesStatus6) {
  Peer peer(answering(0));
  const std::string command = std::string(KOVACTL_PROGRAM) + " call Anything >/dev/full";
  const int status = std::system(command.c_str());
  EXPECT_EQ(WEXITSTATUS(status), 6);
}

}  // namespace
}  // namespace kova::ctl::testing
