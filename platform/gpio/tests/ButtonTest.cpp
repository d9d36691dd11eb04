#include "kova/gpio/Button.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "../../utils/tests/TemporaryFolder.h"
#include "FakeChips.h"
#include "SyslogRecorder.h"
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
timeval now() {
  return {};
}
void forceCrash() {
  std::abort();
}
}  // namespace kova::utils

namespace kova::gpio {
namespace {

using testing::Contains;
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
    tests::records.clear();
    release();
    info_["reset_button_gpio"] = path_;
  }

  // Each sets the line, then services the button for `ms`.
  void press(int ms = 0) { hold("0\n", ms); }
  void release(int ms = 0) { hold("1\n", ms); }
  void hold(const char* level, int ms) {
    writeText(path_, level);
    pass(ms);
  }

  // Services the button now and then every `stepMs`, for `ms` in total.
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

  static std::size_t logged(const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(tests::records.begin(), tests::records.end(),
                      [&](const auto& record) { return record.text.ends_with(": " + text); }));
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_ / "value";
  variant::CameraInfo info_;
  Recorder observer_;
  ResetButtonCase button_;
};

TEST_F(ButtonTest, PressAndReleaseAreReportedOnce) {
  start();
  press(200);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
  release(200);
  EXPECT_THAT(observer_.events, ElementsAre("down", "up 200"));
}

TEST_F(ButtonTest, LevelCountsAfterDebounceTime) {
  start();
  press();
  pass(30, 1);
  EXPECT_THAT(observer_.events, IsEmpty());
  pass(1);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
}

TEST_F(ButtonTest, HoldIntervalCountsFromPress) {
  start(100);
  press(351);
  EXPECT_THAT(observer_.events, ElementsAre("down", "held 100", "held 200", "held 300"));
}

TEST_F(ButtonTest, ZeroIntervalReportsHoldAtEveryService) {
  start(0);
  press(51);
  EXPECT_THAT(observer_.events, ElementsAre("down", "held 30", "held 40", "held 50"));
}

TEST_F(ButtonTest, BounceWithinDebounceTimeIsIgnored) {
  start(0);
  for (int i = 0; i < 10; ++i) {
    press(20);
    release(20);
  }
  pass(100);
  EXPECT_THAT(observer_.events, IsEmpty());
}

TEST_F(ButtonTest, BouncingPressCountsFromLastClosing) {
  start();
  press(10);
  release(50);
  press(500);
  release(100);
  EXPECT_THAT(observer_.events, ElementsAre("down", "up 500"));
}

TEST_F(ButtonTest, GlitchDuringHoldIsIgnored) {
  start(100);
  press(195);
  release(20);
  press(85);
  EXPECT_THAT(observer_.events, ElementsAre("down", "held 100", "held 220"));
  release(100);
  EXPECT_EQ(observer_.events.back(), "up 310");
}

TEST_F(ButtonTest, HoldEndsAtRelease) {
  start(100);
  press(90);
  release(100);
  EXPECT_THAT(observer_.events, ElementsAre("down", "up 90"));
}

TEST_F(ButtonTest, ButtonHeldAtStartIsPress) {
  press();
  ASSERT_TRUE(button_.init(&info_, &observer_, 100));
  pass(161);
  EXPECT_THAT(observer_.events, ElementsAre("down", "held 100"));
}

TEST_F(ButtonTest, PressCountsUpToLastSampleBeforeGap) {
  start();
  press(1200);
  turnedMs += 6000;
  pass(900);
  EXPECT_THAT(observer_.events, ElementsAre("down", "up 1190", "down"));
  release(100);
  EXPECT_EQ(observer_.events.back(), "up 890");
}

TEST_F(ButtonTest, GapOf250MillisecondsDoesNotEndPress) {
  start();
  press(100);
  turnedMs += 240;
  pass(100);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
  turnedMs += 241;
  pass(100);
  EXPECT_THAT(observer_.events, ElementsAre("down", "up 430", "down"));
}

TEST_F(ButtonTest, PressReleasedInGapEnds) {
  start();
  press(500);
  release();
  turnedMs += 1000;
  pass(500);
  EXPECT_THAT(observer_.events, ElementsAre("down", "up 490"));
}

TEST_F(ButtonTest, EqualLevelsAroundGapDoNotDebounce) {
  start();
  press(10);
  turnedMs += 1000;
  pass(1);
  EXPECT_THAT(observer_.events, IsEmpty());
  pass(40);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
}

TEST_F(ButtonTest, SlowObserverDoesNotLengthenNextPress) {
  class Slow : public Recorder {
   public:
    void buttonUp(int heldMs) override {
      Recorder::buttonUp(heldMs);
      turnedMs += 200;
    }
  } slow;
  ASSERT_TRUE(button_.init(&info_, &slow, 1000000));
  press(500);
  turnedMs += 1000;
  pass(400);
  release(60);
  EXPECT_THAT(slow.events, ElementsAre("down", "up 440", "down", "up 190"));
}

TEST_F(ButtonTest, OpenLineIsSampledEveryFiftyMilliseconds) {
  start();
  const auto seen = [&] {
    for (int ms = 1;; ++ms) {
      pass(1, 1);
      if (!observer_.events.empty()) {
        return ms;
      }
    }
  };
  pass(1, 1);
  turnedMs += 49;
  pass(1, 1);  // takes an open sample
  press();
  EXPECT_EQ(seen(), 50 + 30);
}

TEST_F(ButtonTest, LineMayBeActiveHigh) {
  info_["reset_button_active_low"] = false;
  press();
  start();
  release(100);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
}

TEST_F(ButtonTest, LineMayBeOfCharacterDevice) {
  fakes::fakeChips = {{"soc", {"", "reset"}, {{1, true}}}};
  info_["reset_button_gpio"] = "soc:1";
  start();
  fakes::fakeChips[0].high[1] = false;
  pass(200);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
  fakes::fakeChips[0].readError = ENODEV;
  EXPECT_FALSE(button_.service());
  EXPECT_EQ(logged("Cannot read the button at soc:1: No such device"), 1U);
}

TEST_F(ButtonTest, BoardWithoutButtonDoesNothing) {
  const variant::CameraInfo empty;
  EXPECT_TRUE(button_.init(&empty, &observer_, 0));
  press(100);
  EXPECT_THAT(observer_.events, IsEmpty());
}

TEST_F(ButtonTest, KeysOfAnotherTypeCountAsAbsent) {
  info_["reset_button_active_low"] = "no";
  start();
  press(100);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
  info_["reset_button_gpio"] = 5;
  EXPECT_TRUE(button_.init(&info_, &observer_, 0));
  pass(100);
  EXPECT_THAT(observer_.events, ElementsAre("down"));
}

TEST_F(ButtonTest, UnreadableLineDoesNotFailInit) {
  std::filesystem::remove(path_);
  EXPECT_TRUE(button_.init(&info_, &observer_, 0));
  EXPECT_EQ(logged("Cannot read the button at " + path_ + ": No such file or directory"), 1U);
  pass(59'990);
  EXPECT_EQ(tests::records.size(), 1U);
  press(100);
  EXPECT_THAT(observer_.events, Contains("down"));
  EXPECT_EQ(logged("The button at " + path_ + " can be read again"), 1U);
  EXPECT_EQ(tests::records.size(), 2U);
}

TEST_F(ButtonTest, FolderInPlaceOfLineIsRejected) {
  std::filesystem::remove(path_);
  std::filesystem::create_directory(path_);
  EXPECT_TRUE(button_.init(&info_, &observer_, 0));
  EXPECT_EQ(tests::records.size(), 1U);
}

TEST_F(ButtonTest, LostLineFailsAtOnceThenOncePerMinute) {
  start();
  writeText(path_, "");
  std::vector<std::uint64_t> failures;
  const std::uint64_t begin = turnedMs;
  for (int ms = 0; ms < 200'000; ms += 10, turnedMs += 10) {
    if (!button_.service()) {
      failures.push_back(turnedMs - begin);
    }
  }
  ASSERT_EQ(failures.size(), 4U);
  EXPECT_LE(failures[0], 50U);
  EXPECT_EQ(failures[1] - failures[0], 60'000U);
  EXPECT_EQ(failures[3] - failures[2], 60'000U);
  EXPECT_EQ(logged("Cannot read the button at " + path_ + ": Invalid argument"), 1U);
}

TEST_F(ButtonTest, UnreadableTimeDoesNotCountAsHold) {
  start(100);
  press(150);
  writeText(path_, "");
  EXPECT_FALSE(button_.service());
  pass(59'990);
  EXPECT_THAT(observer_.events, ElementsAre("down", "held 100", "up 140"));
  press(200);
  release(50);
  EXPECT_THAT(observer_.events,
              ElementsAre("down", "held 100", "up 140", "down", "held 100", "up 190"));
}

TEST_F(ButtonTest, OnlyZeroAndOneAreLevels) {
  start();
  for (const char* text : {"", "\n", "2\n", "01\n", "0\n\n", "0 \n", "00000000"}) {
    turnedMs += 60'000;
    writeText(path_, text);
    EXPECT_FALSE(button_.service()) << text;
  }
  for (const char* text : {"0", "1", "0\n", "1\n"}) {
    turnedMs += 60'000;
    writeText(path_, text);
    EXPECT_TRUE(button_.service()) << text;
    writeText(path_, "");
    turnedMs += 60'000;
    EXPECT_FALSE(button_.service() && button_.service());
  }
}

TEST_F(ButtonTest, DescriptorsDoNotAccumulate) {
  const long before = tests::openDescriptors();
  for (int i = 0; i < 5; ++i) {
    ResetButtonCase button;
    EXPECT_TRUE(button.init(&info_, &observer_, 0));
    EXPECT_TRUE(button.init(&info_, &observer_, 0));
    EXPECT_EQ(tests::openDescriptors(), before + 1);
    writeText(path_, "");
    turnedMs += 50;
    EXPECT_FALSE(button.service());
    EXPECT_EQ(tests::openDescriptors(), before);
    release();
  }
  EXPECT_EQ(tests::openDescriptors(), before);
}

}  // namespace
}  // namespace kova::gpio
