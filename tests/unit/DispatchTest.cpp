#include "DispatchFixture.h"

namespace kova::ctlserver {
namespace {

using ipc::messages::BaseRequestMessage;
using ipc::messages::BaseResponseMessage;

class DispatchTest : public DispatchFixture {
 protected:
  static const Variant& lastResponse() { return platform().bus.responses.back().second; }
};

TEST_F(DispatchTest, EmptyStatisticsRequestExpectsResponse) {
  EXPECT_TRUE(handle({{"functionName", "GetSystemStats"}, {"id", 77}, {"from", "peer"}}));
  ASSERT_EQ(platform().bus.responses.size(), 1U);
  EXPECT_EQ(*lastResponse().find("statusCode"), Variant(std::uint64_t{0}));
  EXPECT_EQ(*lastResponse().find("functionName"), Variant("__response__"));
  EXPECT_NE(lastResponse().find("payload")->find("memory"), nullptr);
}

TEST_F(DispatchTest, FailedOperationAnswersOneWithPartialPayload) {
  platform().stats.loadResult = 1;
  EXPECT_TRUE(handle({{"functionName", "GetSystemStats"}}));
  EXPECT_EQ(*lastResponse().find("statusCode"), Variant(std::uint64_t{1}));
  EXPECT_NE(lastResponse().find("payload")->find("cpuinfo"), nullptr);
  EXPECT_EQ(lastResponse().find("payload")->find("loadavg"), nullptr);
}

TEST_F(DispatchTest, RequestWithoutResponseIsCarriedOutUnanswered) {
  EXPECT_TRUE(handle({{"functionName", "GetSystemStats"}, {"responseExpected", false}}));
  EXPECT_TRUE(handle({{"functionName", "SaveToFlash"}, {"sync", true}}));
  EXPECT_TRUE(handle({{"functionName", "ResetToDefaults"}}));
  EXPECT_THAT(platform().commands, ElementsAre(kSave));
  EXPECT_THAT(platform().bus.responses, IsEmpty());
}

TEST_F(DispatchTest, ResultOfSendingResponseIsReturned) {
  platform().bus.sendResult = false;
  EXPECT_FALSE(handle({{"functionName", "GetSystemStats"}}));
}

TEST_F(DispatchTest, DeferredSaveIsAnsweredBeforeItIsWritten) {
  EXPECT_TRUE(handle({{"functionName", "SaveToFlash"}, {"responseExpected", true}}));
  EXPECT_EQ(*lastResponse().find("statusCode"), Variant(std::uint64_t{0}));
  EXPECT_TRUE(lastResponse().find("payload")->isEmpty());
  EXPECT_THAT(platform().commands, IsEmpty());
}

TEST_F(DispatchTest, SynchronousSaveIsAnsweredAfterItEnds) {
  const Map request{{"functionName", "SaveToFlash"}, {"sync", true}, {"responseExpected", true}};
  EXPECT_TRUE(handle(request));
  EXPECT_THAT(platform().journal, ElementsAre(std::string("run ") + kSave, "Ipc::SendResponse"));
  EXPECT_EQ(*lastResponse().find("statusCode"), Variant(std::uint64_t{0}));
  failRunOf(kSave);
  EXPECT_TRUE(handle(request));
  EXPECT_EQ(*lastResponse().find("statusCode"), Variant(std::uint64_t{1}));
}

TEST_F(DispatchTest, FactoryResetIsOnlyScheduledAndAnsweredZero) {
  EXPECT_TRUE(handle({{"functionName", "ResetToDefaults"}, {"responseExpected", true}}));
  EXPECT_EQ(*lastResponse().find("statusCode"), Variant(std::uint64_t{0}));
  EXPECT_THAT(platform().commands, IsEmpty());
  platform().nowMs += 5001;
  server_.service(0);
  EXPECT_THAT(platform().commands, ElementsAre("/bin/cfgmtd -c", "/usr/bin/reboot"));
}

TEST_F(DispatchTest, RebootDelaysSavesRebootsAndNeverReturns) {
  platform().onSleep = [waits = 0](int milliseconds) mutable {
    if (milliseconds == 1000 && ++waits == 3) {
      throw LeaveWait();
    }
  };
  EXPECT_THROW(handle({{"functionName", "Reboot"}, {"delayMs", 700}, {"responseExpected", true}}),
               LeaveWait);
  EXPECT_THAT(platform().journal,
              ElementsAre("sleep 700", std::string("run ") + kSave, "run /usr/bin/reboot",
                          "sleep 1000", "sleep 1000", "sleep 1000"));
}

TEST_F(DispatchTest, DelayOutsideIntIsZero) {
  platform().onSleep = [](int) { throw LeaveWait(); };
  for (const Variant& delay : {Variant(-1), Variant(4294967295U), Variant(2147483648U)}) {
    EXPECT_THROW(handle({{"functionName", "Reboot"}, {"delayMs", delay}}), LeaveWait);
  }
  EXPECT_THROW(handle({{"functionName", "Reboot"}, {"delayMs", 2147483647}}), LeaveWait);
  EXPECT_THAT(platform().journal, ElementsAre("sleep 0", "sleep 0", "sleep 0", "sleep 2147483647"));
}

TEST_F(DispatchTest, ServiceRequestsAreLoggedWithSenderAndResult) {
  platform().onService = [](const std::string&, const std::string& name) { return name == "sshd"; };
  EXPECT_TRUE(handle({{"functionName", "StartService"}, {"from", "manager"}, {"service", "sshd"}}));
  EXPECT_TRUE(handle({{"functionName", "StopService"},
                      {"from", "manager"},
                      {"service", "nosuch"},
                      {"responseExpected", true}}));
  EXPECT_THAT(platform().log,
              ElementsAre(LogLine{"CtlServer", "HandleRequest", 6, 0,
                                  "manager tried to start sshd service and succeeded"},
                          LogLine{"CtlServer", "HandleRequest", 6, 0,
                                  "manager tried to stop nosuch service and failed"}));
  ASSERT_EQ(platform().bus.responses.size(), 1U) << "StartService expects no response by default";
  EXPECT_EQ(*lastResponse().find("statusCode"), Variant(std::uint64_t{1}));
}

TEST_F(DispatchTest, NamesAreComparedExactly) {
  for (const Variant& name : {Variant("reboot"), Variant("Reboot "), Variant(""), Variant(1),
                              Variant(std::string("Reboot\0", 7)), Variant("NoSuchFunction")}) {
    EXPECT_TRUE(handle({{"functionName", name}, {"responseExpected", true}}));
  }
  EXPECT_THAT(platform().journal, IsEmpty());
  EXPECT_THAT(platform().bus.responses, IsEmpty());
}

TEST_F(DispatchTest, ResponsesToDaemonAreIgnored) {
  BaseRequestMessage request;
  BaseResponseMessage response;
  bool flag = false;
  EXPECT_TRUE(handler_.HandleResponse(request, response, flag));
  handler_.MessageSentSuccessfully(request, flag);
  EXPECT_FALSE(flag);
  EXPECT_THAT(platform().journal, IsEmpty());
}

}  // namespace
}  // namespace kova::ctlserver
