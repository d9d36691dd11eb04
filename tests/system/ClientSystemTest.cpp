#include "SharedCamera.h"
#include "kova/variant/Variant.h"

namespace kova::system_test {
namespace {

using variant::Variant;

/// kovactl on the camera itself.
class ClientSystem : public SharedCamera {
 protected:
  /// The state of a service, and whether it starts at boot, from "service list --json".
  static std::string service(const std::string& name) {
    const Result listed = camera().ctl({"service", "list", "--json"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    Variant document;
    EXPECT_GT(Variant::FromJSON(listed.out, document), 0) << listed.out;
    for (const Variant& entry : document["result"].items()) {
      if (entry.find("name")->toText() == name) {
        return entry.find("state")->toText() + (entry.find("atBoot")->toBool() ? ", at boot" : "");
      }
    }
    return "not listed";
  }
};

TEST_F(ClientSystem, ServiceListFollowsStartAndStop) {
  EXPECT_EQ(service("kova_sounds_leds"), "run, at boot");
  ASSERT_EQ(camera().ctl({"service", "stop", "kova_sounds_leds"}).status, 0);
  EXPECT_EQ(service("kova_sounds_leds"), "down");
  ASSERT_EQ(camera().ctl({"service", "start", "kova_sounds_leds"}).status, 0);
  EXPECT_EQ(service("kova_sounds_leds"), "run, at boot");
}

TEST_F(ClientSystem, RefusedServiceSuggestsInstalledOnes) {
  const Result result = camera().ctl({"service", "stop", "kova_sound_leds"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("did you mean \"kova_sounds_leds\"?"), std::string::npos) << result.err;
}

TEST_F(ClientSystem, ListedTimeZonesAreAccepted) {
  const std::string zone = "America/Argentina/Salta";
  ASSERT_EQ(camera().ctl({"timezones", "ARGENTINA/sal"}).out, zone + "\n");
  EXPECT_EQ(camera().ctl({"settings", "timezone=" + zone}).status, 0);
  EXPECT_EQ(camera().ctl({"reset-settings"}).status, 0);
}

}  // namespace
}  // namespace kova::system_test
