#include "ResetButtonsReactor.h"

#include <syslog.h>

#include <climits>
#include <memory>
#include <utility>

#include "CtlServer.h"
#include "UnitTest.h"
#include "kova/messages/Events.h"

namespace kova::ctlserver {
namespace {

LogLine line(const char* function, const std::string& text, int level = LOG_INFO) {
  return {"ResetButtonsReactor", function, level, 0, text};
}

class ResetButtonsReactorTest : public testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    info_["sysid"] = 0xa525U;
    ASSERT_TRUE(server_->init(ipc::Ipc::GetInstance()));
    ASSERT_TRUE(reactor_.init("case", &info_, ipc::Ipc::GetInstance(), server_.get()));
    EXPECT_EQ(platform().journal.back(), "BaseButton::init 100");
    platform().journal.clear();
  }

  void TearDown() override {
    server_.reset();
    ipc::Ipc::FreeInstance();
  }

  /// Whether a factory reset is scheduled: once due, it erases the configuration.
  bool resetScheduled() {
    platform().nowMs += 5001;
    server_->service(0);
    return testing::Matches(Contains("/bin/cfgmtd -c"))(platform().commands);
  }

  variant::CameraInfo info_;
  std::unique_ptr<CtlServer> server_ = std::make_unique<CtlServer>(info_);
  ResetButtonsReactor reactor_;
};

TEST_F(ResetButtonsReactorTest, EventBeforeInitIsInternalError) {
  ResetButtonsReactor fresh;
  fresh.buttonDown();
  EXPECT_THAT(platform().log, ElementsAre(line("buttonDown", "Internal error", LOG_ERR)));
}

TEST_F(ResetButtonsReactorTest, ThresholdBeforeInitIsZero) {
  ResetButtonsReactor fresh;
  fresh.buttonDepressed(0);
  fresh.buttonDepressed(-1);
  fresh.buttonUp(10'000);
  EXPECT_THAT(platform().log, ElementsAre(line("buttonUp", "Reset button () up after 10000 ms")));
}

TEST_F(ResetButtonsReactorTest, ShortPressDoesNothing) {
  reactor_.buttonDown();
  reactor_.buttonDepressed(100);
  reactor_.buttonUp(150);
  EXPECT_THAT(platform().log, ElementsAre(line("buttonDown", "Reset button (case) down"),
                                          line("buttonUp", "Reset button (case) up after 150 ms")));
  EXPECT_THAT(platform().journal, IsEmpty());
  EXPECT_FALSE(resetScheduled());
}

TEST_F(ResetButtonsReactorTest, LongPressNeverReportedAsHeldDoesNothing) {
  reactor_.buttonDown();
  reactor_.buttonUp(20'000);
  EXPECT_THAT(platform().journal, IsEmpty());
  EXPECT_FALSE(resetScheduled());
}

TEST_F(ResetButtonsReactorTest, ThresholdIsFiveSecondsButThreeOnOneModel) {
  for (const auto& [sysid, thresholdMs] :
       {std::pair{0xa525U, 5000}, {0xa526U, 3000}, {0xa527U, 5000}}) {
    SCOPED_TRACE(sysid);
    platform().bus.sent.clear();
    info_["sysid"] = sysid;
    ResetButtonsReactor reactor;
    EXPECT_TRUE(reactor.init("case", &info_, ipc::Ipc::GetInstance(), server_.get()));
    for (const int heldMs : {INT_MIN, -1, thresholdMs - 1, thresholdMs}) {
      reactor.buttonDepressed(heldMs);
    }
    EXPECT_THAT(platform().bus.sent, IsEmpty());
    reactor.buttonDepressed(thresholdMs + 1);
    EXPECT_EQ(platform().bus.sent.size(), 1U);
  }
}

TEST_F(ResetButtonsReactorTest, SignalPlaysResetButtonSound) {
  reactor_.buttonDepressed(5001);
  ASSERT_EQ(platform().bus.sent.size(), 1U);
  ipc::messages::PlayState signal(platform().bus.sent.front());
  EXPECT_EQ(signal.to(), "kova_sounds_leds");
  EXPECT_EQ(signal.from(), "kova_ctlserver");
  EXPECT_EQ(signal.functionName(), "PlayState");
  EXPECT_EQ(signal.name(), "RESET_BUTTON");
  EXPECT_FALSE(signal.responseExpected());
  EXPECT_THAT(platform().log,
              ElementsAre(line("buttonDepressed", "Reset button (case) can be released now")));
}

TEST_F(ResetButtonsReactorTest, SignalIsSentOnce) {
  reactor_.buttonDepressed(5001);
  reactor_.buttonDepressed(5101);
  reactor_.buttonUp(5201);
  reactor_.buttonDown();
  reactor_.buttonDepressed(6000);
  EXPECT_EQ(platform().bus.sent.size(), 1U);
}

TEST_F(ResetButtonsReactorTest, UnsendableSignalStillArms) {
  platform().bus.sendResult = false;
  reactor_.buttonDepressed(5001);
  reactor_.buttonDepressed(5101);
  EXPECT_EQ(platform().bus.sent.size(), 1U);
  reactor_.buttonUp(7000);
  EXPECT_TRUE(resetScheduled());
}

TEST_F(ResetButtonsReactorTest, HoldingAloneSchedulesNothing) {
  reactor_.buttonDepressed(5001);
  EXPECT_FALSE(resetScheduled());
}

TEST_F(ResetButtonsReactorTest, ReleaseAtThresholdSchedulesNothingEvenIfArmed) {
  reactor_.buttonDepressed(5001);
  reactor_.buttonUp(5000);
  reactor_.buttonUp(-1);
  EXPECT_FALSE(resetScheduled());
}

TEST_F(ResetButtonsReactorTest, ArmedStateIsNeverLeft) {
  reactor_.buttonDepressed(5001);
  reactor_.buttonUp(200);
  reactor_.buttonUp(9000);
  EXPECT_TRUE(resetScheduled());
}

/// Time from threshold to release in milliseconds, and the waits that follow.
using Release = std::pair<int, std::vector<std::string>>;

class ReleaseWaitTest : public ResetButtonsReactorTest,
                        public testing::WithParamInterface<Release> {};

TEST_P(ReleaseWaitTest, LastsUntilOneSecondPastThreshold) {
  const auto& [pastThresholdMs, waits] = GetParam();
  reactor_.buttonDepressed(5001);
  platform().journal.clear();
  reactor_.buttonUp(5000 + pastThresholdMs);
  EXPECT_EQ(platform().journal, waits);
  // The reset counts from the end of the wait.
  platform().nowMs += 5000;
  server_->service(0);
  EXPECT_THAT(platform().commands, IsEmpty());
  platform().nowMs += 1;
  server_->service(0);
  EXPECT_THAT(platform().commands, Contains("/bin/cfgmtd -c"));
}

INSTANTIATE_TEST_SUITE_P(Releases, ReleaseWaitTest,
                         testing::Values(Release{1, {"sleep 999"}}, Release{200, {"sleep 800"}},
                                         Release{999, {"sleep 1"}}, Release{1000, {}},
                                         Release{1001, {}}, Release{INT_MAX - 5000, {}}));

// The model.

TEST_F(ResetButtonsReactorTest, DescriptionWithoutModelEndsProcess) {
  ResetButtonsReactor fresh;
  const auto expectCrash = [&](const std::string& text) {
    platform().log.clear();
    EXPECT_THROW(fresh.init("case", &info_, nullptr, server_.get()), fakes::ForcedCrash);
    EXPECT_THAT(platform().log, ElementsAre(line("init", text, LOG_ERR)));
  };
  info_ = variant::CameraInfo();
  expectCrash("Invalid variant type detected");
  info_["name"] = "Kova";
  expectCrash("Key \"sysid\" not available");
  info_["sysid"] = "42278";
  expectCrash("Key \"sysid\" has a different type than expected");
  info_["sysid"] = 42278.0;
  expectCrash("Key \"sysid\" has a different type than expected");
  fresh.buttonDown();
  EXPECT_TRUE(platform().logged(LOG_ERR, "Internal error"));
}

// The button in the server.

TEST_F(ResetButtonsReactorTest, ServerConnectsButtonToReactor) {
  platform().button.onService = [] {
    platform().button.onService = nullptr;
    platform().button.observer->buttonDown();
    platform().button.observer->buttonDepressed(5001);
    platform().button.observer->buttonUp(6000);
  };
  server_->service(0);
  EXPECT_THAT(platform().log,
              ElementsAre(line("buttonDown", "Reset button (case) down"),
                          line("buttonDepressed", "Reset button (case) can be released now"),
                          line("buttonUp", "Reset button (case) up after 6000 ms")));
  EXPECT_EQ(platform().bus.sent.size(), 1U);
  EXPECT_TRUE(resetScheduled());
}

TEST_F(ResetButtonsReactorTest, FailedButtonInitFailsServerInit) {
  platform().button.initResult = false;
  EXPECT_FALSE(CtlServer(info_).init(ipc::Ipc::GetInstance()));
  EXPECT_THAT(platform().log, ElementsAre(LogLine{"CtlServer", "init", LOG_ERR, 0,
                                                  "Failed to initialize reset button case"}));
}

}  // namespace
}  // namespace kova::ctlserver
