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
  // In milliseconds, from the log.
  static std::vector<int> heldTimes(const LogMark& mark) {
    std::vector<int> times;
    for (const std::string& line : mark.linesWith(kUp)) {
      times.push_back(std::stoi(line.substr(line.find(kUp) + sizeof kUp - 1)));
    }
    return times;
  }
};

// The button is not polled while the configuration is saved.
TEST_F(ButtonSystem, TapsAroundSlowSaveAreNotHold) {
  constexpr char kSave[] = "/bin/cfgmtd -w -p /etc/ -m\n";
  const LogMark mark(camera());
  const std::size_t saves = occurrences(camera().tools(), kSave);
  camera().misbehave("cfgmtd", "sleep", "6.5");
  camera().pressButton(true);
  EXPECT_TRUE(mark.waitFor(kDown));
  std::thread saving([] { EXPECT_EQ(camera().ctl({"save", "--sync"}).status, 0); });
  EXPECT_TRUE(eventually([&] { return occurrences(camera().tools(), kSave) > saves; }));
  camera().pressButton(false);
  camera().pressButton(true);
  saving.join();
  camera().behave("cfgmtd");
  EXPECT_TRUE(eventually([&] { return mark.linesWith(kDown).size() == 2; })) << mark.text();
  camera().pressButton(false);
  EXPECT_TRUE(eventually([&] { return mark.linesWith(kUp).size() == 2; }));
  for (const int held : heldTimes(mark)) {
    EXPECT_LT(held, 5000) << mark.text();
  }
  EXPECT_TRUE(mark.linesWith(kRelease).empty()) << mark.text();
}

/// A camera with a saved configuration whose button is pressed.
struct Held {
  explicit Held(Camera& held) : camera(held), mark(held) {
    EXPECT_EQ(camera.ctl({"settings", "name=Saved"}).status, 0);
    EXPECT_EQ(camera.ctl({"save", "--sync"}).status, 0);
    EXPECT_TRUE(eventually([this] { return isOnTheBus("kova_sounds_leds"); }, seconds(30)));
    boot = camera.boots();
    pressed = Clock::now();
    camera.pressButton(true);
  }

  bool isOnTheBus(const std::string& endpoint) const {
    return camera.shell("busctl --address=unix:path=/run/kova/bus status kova." + endpoint)
               .status == 0;
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

TEST_F(ButtonSystem, HoldPastModelThresholdRestoresDefaults) {
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
