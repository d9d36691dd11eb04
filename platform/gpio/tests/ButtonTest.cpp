#include "kova/gpio/Button.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "../../utils/tests/TemporaryFolder.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Crash.h"
#include "kova/variant/CameraInfo.h"

namespace {
std::uint64_t turnedMs = 1;
}

namespace kova::utils {
std::uint64_t nowMs() {
  return turnedMs;
}
void forceCrash() {
  std::abort();
}
}  // namespace kova::utils

namespace kova::gpio {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using tests::TemporaryFolder;
using tests::writeText;

class Recorder : public IButtonEventsObserver {
 public:
  void buttonDown() override { events.emplace_back("down"); }
  void buttonUp(int heldMs) override { events.push_back("up " + std::to_string(heldMs)); }
  void buttonDepressed(int heldMs) override { events.push_back("held " + std::to_string(heldMs)); }

  std::vector<std::string> events;
};

class ButtonTest : public testing::Test {
 protected:
  void SetUp() override {
    turnedMs = 1000;
    release();
    info_["reset_button_gpio"] = path_;
  }

  void press() { writeText(path_, "0\n"); }
  void release() { writeText(path_, "1\n"); }

  // Services the button at once and then each `stepMs`, for `ms` in all.
  void pass(int ms, int stepMs = 10) {
    const std::uint64_t end = turnedMs + static_cast<std::uint64_t>(ms);
    for (; turnedMs < end; turnedMs += static_cast<std::uint64_t>(stepMs)) {
      EXPECT_TRUE(button_.service());
    }
  }

  void start(int intervalMs = 1000000) {
    ASSERT_TRUE(button_.init(&info_, &observer_, intervalMs));
    pass(100);
    ASSERT_THAT(observer_.events, IsEmpty());
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_ / "value";
  variant::CameraInfo info_;
  Recorder observer_;
  ResetButtonCase button_;
};

TEST_F(ButtonTest, APressAndAReleaseAreReportedOnce) {
  start();
  press();
  pass(200);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
  release();
  pass(200);
  EXPECT_THAT(observer_.events, ElementsAre("down", "up 200"));
}

TEST_F(ButtonTest, ALevelCountsAfterExactlyTheDebounceTime) {
  start();
  press();
  pass(30, 1);
  EXPECT_THAT(observer_.events, IsEmpty());
  pass(1);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
}

TEST_F(ButtonTest, AHeldButtonIsReportedAtTheIntervalCountedFromThePress) {
  start(100);
  press();
  pass(351);
  EXPECT_THAT(observer_.events, ElementsAre("down", "held 100", "held 200", "held 300"));
}

TEST_F(ButtonTest, AtAnIntervalOfZeroEachServiceReportsTheHold) {
  start(0);
  press();
  pass(51);
  EXPECT_THAT(observer_.events, ElementsAre("down", "held 30", "held 40", "held 50"));
}

TEST_F(ButtonTest, ABounceWithinTheDebounceTimeIsNothing) {
  start(0);
  for (int i = 0; i < 10; ++i) {
    press();
    pass(20);
    release();
    pass(20);
  }
  pass(100);
  EXPECT_THAT(observer_.events, IsEmpty());
}

TEST_F(ButtonTest, ABouncingPressCountsFromItsLastClosing) {
  start();
  press();
  pass(10);
  release();
  pass(10);
  press();
  pass(500);
  release();
  pass(100);
  EXPECT_THAT(observer_.events, ElementsAre("down", "up 500"));
}

TEST_F(ButtonTest, AGlitchWhileHeldIsNeitherAnUpNorADown) {
  start(100);
  press();
  pass(195);
  release();
  pass(20);
  press();
  pass(85);
  EXPECT_THAT(observer_.events, ElementsAre("down", "held 100", "held 220"));
  release();
  pass(100);
  EXPECT_EQ(observer_.events.back(), "up 310");
}

TEST_F(ButtonTest, NoHoldIsReportedBeyondTheRelease) {
  start(100);
  press();
  pass(90);
  release();
  pass(100);
  EXPECT_THAT(observer_.events, ElementsAre("down", "up 90"));
}

TEST_F(ButtonTest, AButtonHeldFromTheStartIsAPress) {
  press();
  ASSERT_TRUE(button_.init(&info_, &observer_, 100));
  pass(111);
  EXPECT_THAT(observer_.events, ElementsAre("down", "held 100"));
}

TEST_F(ButtonTest, AHoldBeyondTheRangeOfMillisecondsIsHeldToIt) {
  start();
  press();
  pass(40);
  turnedMs += 3000000000U;
  pass(10);
  EXPECT_THAT(observer_.events, ElementsAre("down", "held 2147483647"));
}

TEST_F(ButtonTest, TheLineMayBeActiveHigh) {
  info_["reset_button_active_low"] = false;
  press();
  start();
  release();
  pass(100);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
}

TEST_F(ButtonTest, ABoardWithoutTheButtonHasNothingToDo) {
  const variant::CameraInfo empty;
  EXPECT_TRUE(button_.init(&empty, &observer_, 0));
  press();
  pass(100);
  EXPECT_THAT(observer_.events, IsEmpty());
}

TEST_F(ButtonTest, KeysOfAnotherTypeCountAsAbsent) {
  info_["reset_button_active_low"] = "no";
  start();
  press();
  pass(100);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
  info_["reset_button_gpio"] = 5;
  EXPECT_TRUE(button_.init(&info_, &observer_, 0));
  pass(100);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
}

TEST_F(ButtonTest, ALineThatCannotBeReadFailsInit) {
  std::filesystem::remove(path_);
  EXPECT_FALSE(button_.init(&info_, &observer_, 0));
  std::filesystem::create_directory(path_);
  EXPECT_FALSE(button_.init(&info_, &observer_, 0));
}

TEST_F(ButtonTest, OnlyZeroAndOneAreLevels) {
  start();
  for (const char* text : {"", "\n", "2\n", "01\n", "0\n\n", "0 \n", "00000000"}) {
    writeText(path_, text);
    EXPECT_FALSE(button_.service()) << text;
  }
  for (const char* text : {"0", "1", "0\n", "1\n"}) {
    writeText(path_, text);
    EXPECT_TRUE(button_.service()) << text;
  }
}

TEST_F(ButtonTest, AfterAFailureTheButtonWorksAgain) {
  start();
  writeText(path_, "");
  EXPECT_FALSE(button_.service());
  std::filesystem::remove(path_);
  EXPECT_FALSE(button_.service());
  EXPECT_FALSE(button_.service());
  press();
  pass(50);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
}

TEST_F(ButtonTest, OpenDescriptorsDoNotPileUp) {
  const auto open = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = open();
  for (int i = 0; i < 5; ++i) {
    ResetButtonCase button;
    EXPECT_TRUE(button.init(&info_, &observer_, 0));
    EXPECT_TRUE(button.init(&info_, &observer_, 0));
    EXPECT_EQ(open(), before + 1);
    writeText(path_, "");
    EXPECT_FALSE(button.service());
    release();
  }
  EXPECT_EQ(open(), before);
}

}  // namespace
}  // namespace kova::gpio
