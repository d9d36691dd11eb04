#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>

#include "Child.h"
#include "Json.h"
#include "Peer.h"

namespace kova::ctl::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using variant::Variant;

class BusView : public BusTest {
 protected:
  // A monitor owns no name; only its output shows that it is ready.
  static void sendUntilShown(Child& monitor) {
    std::size_t sent = 0;
    do {
      EXPECT_EQ(run({"call", "Something", "a=b", "id:=1"}).status, 0);
    } while (++sent < 1000 && !monitor.awaitOutput("Something", 50));
  }
};

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> all;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    all.push_back(line);
  }
  return all;
}

TEST_F(BusView, ListenPrintsLinePerMessage) {
  Child listener({"listen", "kova_sounds_leds"});
  sendUntilTaken("kova_sounds_leds", {"name=RESET_BUTTON\n", "volume:=40"});
  ASSERT_TRUE(listener.awaitOutput("\n"));
  EXPECT_THAT(listener.out(), HasSubstr(" -> kova_sounds_leds PlayState id="));
  EXPECT_THAT(listener.out(), HasSubstr(" name=\"RESET_BUTTON\\n\""));
  EXPECT_THAT(listener.out(), HasSubstr(" volume=40"));
  listener.signal(SIGTERM);
  const Result result = listener.wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(lines(result.out).size(), 1U);
  EXPECT_EQ(result.err, "");
}

TEST_F(BusView, ListenPrintsJsonWithPasswordsMasked) {
  Child listener({"listen", "client.me", "--json"});
  sendUntilTaken("client.me", {"passwordOld=hunter2", "name=x"});
  ASSERT_TRUE(listener.awaitOutput("\n"));
  const Variant document = jsonOf(lines(listener.out()).front());
  EXPECT_EQ(*document.find("ok"), Variant(true));
  const Variant line = *document.find("result");
  EXPECT_EQ(line.find("kind")->toText(), "call");
  EXPECT_EQ(line.find("destination")->toText(), "client.me");
  EXPECT_EQ(line.find("message")->find("name")->toText(), "x");
  EXPECT_EQ(line.find("message")->find("passwordOld")->toText(), "********");
  listener.signal(SIGINT);
  EXPECT_EQ(listener.wait().status, 0);
}

TEST_F(BusView, MonitorDecodesRequestsAnswersAndErrors) {
  Peer peer([](Peer::Request& request, ipc::Ipc& ipc, bool& rejected) {
    rejected = request.functionName() == "Nonsense";
    if (!rejected) {
      answering(0, Variant::Map{{"n", 5}})(request, ipc, rejected);
    }
  });
  Child monitor({"monitor"});
  sendUntilShown(monitor);
  EXPECT_EQ(run({"call", "Nonsense"}).status, 1);
  ASSERT_TRUE(monitor.awaitOutput("error kova.Error.UnknownFunction"));
  EXPECT_THAT(monitor.out(), HasSubstr(" -> kova_ctlserver Something a=\"b\" id=1"));
  EXPECT_THAT(monitor.out(), HasSubstr("kova_ctlserver -> "));
  EXPECT_THAT(monitor.out(), HasSubstr(" answer id="));
  EXPECT_THAT(monitor.out(), HasSubstr(" payload={\"n\":5} requestId=1 statusCode=0"));
  monitor.signal(SIGINT);
  EXPECT_EQ(monitor.wait().status, 130);
}

TEST_F(BusView, MonitorExitsWithStatus3WhenBusCloses) {
  Peer peer(takingNote());
  Child monitor({"monitor"});
  sendUntilShown(monitor);
  bus_.kill();
  EXPECT_EQ(monitor.wait().status, 3);
}

TEST_F(BusView, CompletionListsFunctionsAndFields) {
  EXPECT_THAT(lines(run({"__complete", "functions"}).out),
              ::testing::IsSupersetOf({"GetSystemStats", "ResetToDefaults", "PlayState"}));
  EXPECT_THAT(lines(run({"__complete", "fields", "SaveToFlash"}).out),
              ::testing::ElementsAre("responseExpected:=", "sync:="));
  EXPECT_THAT(lines(run({"__complete", "fields", "StartService"}).out),
              ::testing::Contains("service="));
}

}  // namespace
}  // namespace kova::ctl::testing
