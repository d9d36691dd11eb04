#include <thread>

#include "SharedCamera.h"
#include "SystemCfg.h"

namespace kova::system_test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kDown[] = ": Reset button (case) down";
constexpr char kUp[] = ": Reset button (case) up after ";
constexpr char kRelease[] = ": Reset button (case) can be released now";
constexpr char kNameKey[] = "resolv.host.1.name";

constexpr char kShortHoldModel[] = R"({
  "name": "Short Hold", "sysid": 42278, "feature_wifi": 0, "feature_battery": 0,
  "reset_button_gpio": "/run/gpio/reset_button/value"
})";

class ButtonSystem : public SharedCamera {
 protected:
  // Ends with a press of which everything is told before this returns: what an earlier movement of
  // the button caused is in the log then.
  static void pressShortly(const LogMark& mark) {
    const std::size_t ups = mark.linesWith(kUp).size();
    const std::size_t downs = mark.linesWith(kDown).size();
    camera().pressButton(true);
    EXPECT_TRUE(eventually([&] { return mark.linesWith(kDown).size() > downs; }));
    camera().pressButton(false);
    EXPECT_TRUE(eventually([&] { return mark.linesWith(kUp).size() > ups; }));
  }

  // Moves the button as a contact bounces.
  // @return whether no movement lasted as long as a press, as it may on a busy machine
  static bool bounce(int times) {
    constexpr auto kClosed = milliseconds(2);
    // Not in step with the control server, which looks about every 10 ms: it would see a press.
    constexpr milliseconds kOpen[] = {milliseconds(4), milliseconds(13)};
    constexpr auto kPress = milliseconds(20);
    bool brief = true;
    for (int i = 0; i < times; ++i) {
      const auto begin = Clock::now();
      camera().pressButton(true);
      std::this_thread::sleep_for(kClosed);
      camera().pressButton(false);
      brief = brief && Clock::now() - begin < kPress;
      std::this_thread::sleep_for(kOpen[i % 2]);
    }
    return brief;
  }
};

TEST_F(ButtonSystem, AShortPressOnlyStandsInTheLog) {
  const LogMark mark(camera());
  const int boot = camera().boots();
  pressShortly(mark);
  EXPECT_EQ(mark.linesWith(kDown).size(), 1U);
  EXPECT_EQ(mark.linesWith(kUp).size(), 1U);
  EXPECT_TRUE(mark.linesWith(kRelease).empty());
  EXPECT_TRUE(mark.linesWith("PlayState").empty());
  EXPECT_EQ(camera().boots(), boot);
}

TEST_F(ButtonSystem, ABouncingContactIsNoPress) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    const LogMark mark(camera());
    const bool brief = bounce(20);
    pressShortly(mark);
    if (brief) {
      EXPECT_EQ(mark.linesWith(kDown).size(), 1U) << mark.text();
      EXPECT_EQ(mark.linesWith(kUp).size(), 1U) << mark.text();
      return;
    }
  }
  GTEST_SKIP() << "the machine is too busy to move a button quickly";
}

/// A camera with a saved configuration whose button is pressed.
struct Held {
  explicit Held(Camera& held) : camera(held), mark(held) {
    EXPECT_EQ(camera.ctl({"settings", "name=Saved"}).status, 0);
    EXPECT_EQ(camera.ctl({"save", "--sync"}).status, 0);
    boot = camera.boots();
    pressed = Clock::now();
    camera.pressButton(true);
  }

  bool waitForRelease() const { return mark.waitFor(kRelease, seconds(20)); }
  bool mayBeReleased() const { return !mark.linesWith(kRelease).empty(); }
  auto held() const { return Clock::now() - pressed; }

  void expectReset(const std::string& factoryName) const {
    EXPECT_TRUE(camera.waitForLog(": Reset to defaults", seconds(30)));
    EXPECT_TRUE(eventually([&] { return camera.waitForBoot(boot + 1); }, seconds(30)));
    const auto signals = mark.linesWith("PlayState");
    ASSERT_EQ(signals.size(), 1U) << mark.text();
    EXPECT_NE(signals[0].find("kova_ctlserver -> kova_sounds_leds"), std::string::npos);
    EXPECT_NE(signals[0].find("name=\"RESET_BUTTON\""), std::string::npos) << signals[0];
    EXPECT_EQ(mark.linesWith(kRelease).size(), 1U);
    EXPECT_EQ(settingIn(readFile(systemCfg(camera)), kNameKey), factoryName);
    EXPECT_EQ(occurrences(camera.tools(), "/bin/cfgmtd -c\n"), 1U);
    EXPECT_EQ(occurrences(camera.tools(), "/usr/bin/reboot\n"), 1U);
  }

  Camera& camera;
  LogMark mark;
  int boot = 0;
  Clock::time_point pressed;
};

TEST_F(ButtonSystem, HeldPastItsModelsThresholdItGivesTheFactorysSettingsBack) {
  Camera shortHold(kShortHoldModel);
  const Held other(shortHold);
  const Held usual(camera());
  EXPECT_TRUE(other.waitForRelease());
  EXPECT_GT(other.held(), seconds(3));
  EXPECT_FALSE(usual.mayBeReleased());
  EXPECT_TRUE(usual.waitForRelease());
  EXPECT_GT(usual.held(), seconds(5));
  EXPECT_EQ(occurrences(camera().tools(), "/bin/cfgmtd -c\n"), 0U);
  EXPECT_EQ(shortHold.boots(), other.boot);

  usual.camera.pressButton(false);
  other.camera.pressButton(false);
  usual.expectReset("Kova Virtual Camera");
  other.expectReset("Short Hold");
}

}  // namespace
}  // namespace kova::system_test
