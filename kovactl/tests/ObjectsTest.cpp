#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <future>

#include "Child.h"
#include "FakeCamera.h"
#include "Json.h"
#include "Peer.h"

namespace kova::ctl::testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using variant::Variant;

/// Commands that read the camera's objects.
class Objects : public BusTest {};

// The connection ends while kovactl is stopped, so it finds the answer and the EOF together.
TEST_F(Objects, AnswerBeforeLossOfBusCounts) {
  FakeCamera camera;
  camera.publish("7", {{"Kind", "logo"}, {"Phase", "transferring"}});
  std::promise<void> asked;
  std::promise<void> asleep;
  camera.behave({.beforeRead = [&] {
    asked.set_value();
    asleep.get_future().wait_for(std::chrono::seconds(20));
  }});
  Child child({"transfers"});
  ASSERT_EQ(asked.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  child.signal(SIGSTOP);
  asleep.set_value();
  EXPECT_TRUE(camera.cancelled().empty()) << "blocks until the camera has answered";
  ipc::Ipc later;
  ASSERT_TRUE(later.Init("", false, nullptr) && later.flush())
      << "blocks until the bus has forwarded it";
  bus_.kill();
  child.signal(SIGCONT);
  const Result result = child.wait();
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("logo"));
}

TEST_F(Objects, ListShowsTransfersAndReasons) {
  FakeCamera camera;
  EXPECT_EQ(run({"transfers"}).out, "No transfers since the control server started.\n");
  camera.publish("9", {{"Kind", "logo"}, {"Phase", "transferring"}});
  camera.publish("10", {{"Kind", "sound"},
                        {"Phase", "ended"},
                        {"Outcome", "REFUSED"},
                        {"Reason", "It is \x1b[31mtoo large."}});
  const Result result = run({"transfers"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, HasSubstr("9    logo   transferring"));
  EXPECT_THAT(result.out, HasSubstr("     It is \\x1b[31mtoo large.\n"));
  const Variant json = jsonOf(run({"transfers", "--json"}).out);
  ASSERT_EQ(json.find("result")->Size(), 2U);
  EXPECT_EQ(json.find("result")->items()[1].find("id")->toText(), "10");
}

TEST_F(Objects, WatchPrintsPhasesAndAllChangesAsJson) {
  FakeCamera camera;
  camera.publish("7", {{"Kind", "logo"}, {"Phase", "transferring"}});
  Child child({"transfers", "--watch"});
  Child json({"transfers", "--watch", "--json"});
  ASSERT_TRUE(child.awaitOutput("transferring"));
  ASSERT_TRUE(json.awaitOutput("\"transferred\":0"));
  camera.change("7", {{"Transferred", std::uint64_t{99}}});
  ASSERT_TRUE(json.awaitOutput("\"transferred\":99"));
  camera.change("7", {{"Phase", "ended"}, {"Outcome", "OK"}});
  ASSERT_TRUE(child.awaitOutput("OK"));
  child.signal(SIGINT);
  const Result result = child.wait();
  EXPECT_EQ(result.status, 130);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 2);
  json.signal(SIGTERM);
  const Result documents = json.wait();
  EXPECT_EQ(documents.status, 143);
  EXPECT_THAT(documents.out, HasSubstr("\"code\":\"terminated\""));
}

TEST_F(Objects, WatchRefreshesTerminal) {
  FakeCamera camera;
  Child child({"transfers", "--watch"}, Child::On::Terminal);
  ASSERT_TRUE(child.awaitOutput("No transfers since the control server started."));
  camera.publish("7", {{"Kind", "logo"}, {"Phase", "preparing"}});
  ASSERT_TRUE(child.awaitOutput("preparing"));
  child.write("\x03");
  EXPECT_EQ(child.wait().status, 130);
}

TEST_F(Objects, CancelReportsAnswerOfCamera) {
  FakeCamera camera;
  EXPECT_EQ(run({"cancel", "0"}).status, 2);
  EXPECT_EQ(run({"cancel", "7/../8"}).status, 2);
  expectFailure(run({"cancel", "7"}), 1, "the camera knows of no transfer 7");
  camera.publish("7", {{"Phase", "transferring"}});
  expectOutput(run({"cancel", "7"}), 0, "Transfer 7 is cancelled.\n");
  camera.behave({.cancelRefusal = "The image is being flashed."});
  expectError(run({"cancel", "7"}), 1,
              "kovactl: transfer 7 cannot be cancelled: The image is being flashed.\n");
}

TEST_F(Objects, InfoAndMetricsDescribeDevice) {
  FakeCamera camera;
  camera.tell("Model", "Virtual \x1b[1m");
  camera.tell("SavePending", 1U);
  camera.tell("LastSave", 1700000000000000U);
  const Result info = run({"info"});
  EXPECT_EQ(info.status, 0) << info.err;
  EXPECT_THAT(info.out, HasSubstr("Model           Virtual \\x1b[1m\n"));
  EXPECT_THAT(info.out, HasSubstr("Save            pending\n"));
  EXPECT_THAT(info.out, HasSubstr(", ok\n"));
  const Variant json = jsonOf(run({"info", "--json"}).out);
  EXPECT_EQ(json.find("result")->find("lastSave")->find("time")->toText(),
            "2023-11-14T22:13:20.000000Z");
  const Result metrics = run({"metrics"});
  EXPECT_EQ(metrics.status, 0) << metrics.err;
  EXPECT_THAT(metrics.out, HasSubstr("kova_uptime_seconds 61\n"));
  EXPECT_THAT(metrics.out, HasSubstr("kova_save_pending 1\n"));
  EXPECT_THAT(metrics.out, EndsWith("# EOF\n"));
}

TEST_F(Objects, AbsentServerIsStatus3) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"transfers"},
                                                    {"transfers", "--watch"},
                                                    {"cancel", "7"},
                                                    {"info"},
                                                    {"metrics"}}) {
    SCOPED_TRACE(arguments.front());
    expectFailure(run(arguments), 3, "\"kova_ctlserver\" is not on the bus");
  }
}

}  // namespace
}  // namespace kova::ctl::testing
