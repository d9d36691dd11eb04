#include "BusClient.h"
#include "SharedCamera.h"
#include "SystemCfg.h"
#include "kova/variant/Variant.h"

namespace kova::system_test {
namespace {

using namespace std::string_literals;
using variant::Variant;

constexpr char kApplyName[] = "/bin/kova_cmd_apply_camera_name.sh\n";
constexpr char kDiscovery[] = "kova_discovery_server";
constexpr char kNameKey[] = "resolv.host.1.name";
constexpr char kZoneKey[] = "system.timezone";
constexpr char kRegionKey[] = "system.region";

/// The response payload of ChangeDeviceSettings with these assignments.
Variant change(const Camera& camera, std::vector<std::string> fields, int status = 0) {
  fields.insert(fields.begin(), {"call", "ChangeDeviceSettings", "--json"});
  const Result result = camera.ctl(fields);
  EXPECT_EQ(result.status == 0, status == 0) << result.out << result.err;
  Variant document;
  EXPECT_GT(Variant::FromJSON(result.out, document), 0) << result.out;
  return document["result"]["payload"];
}

class SettingsSystem : public UnharmedCamera {
 protected:
  static std::string cfg() { return readFile(systemCfg(camera())); }
  static std::string setting(const std::string& key) { return settingIn(cfg(), key); }
  static std::string systemZone() {
    return std::filesystem::read_symlink(camera().root() / "etc/localtime");
  }
  static std::size_t runs(const std::string& tool) { return occurrences(camera().tools(), tool); }
  // The pid of the discovery server, once it is up.
  static std::string discovery() {
    std::string pid;
    EXPECT_TRUE(eventually([&] { return !(pid = camera().pidOf(kDiscovery)).empty(); }));
    return pid;
  }
};

TEST_F(SettingsSystem, NewNameIsStoredAppliedAndAnnounced) {
  const std::string before = cfg();
  const std::size_t applied = runs(kApplyName);
  const std::string discoveryBefore = discovery();
  const LogMark mark(camera());
  EXPECT_EQ(change(camera(), {"name=Front door"})["name"], Variant("Front door"));
  EXPECT_EQ(cfg(), withSetting(before, kNameKey, "Front door"));
  EXPECT_EQ(runs(kApplyName), applied + 1);
  EXPECT_TRUE(
      eventually([] { return readFile(camera().root() / "etc/hostname") == "Front-door\n"; }));
  // It exits on SIGTERM with status 0 and is restarted with a new pid.
  EXPECT_TRUE(mark.waitFor(kDiscovery + ": service ended: exit status 0"s));
  EXPECT_TRUE(eventually([&] {
    const std::string now = camera().pidOf(kDiscovery);
    return !now.empty() && now != discoveryBefore;
  }));
}

TEST_F(SettingsSystem, BootSoundIsInBootEnvironment) {
  for (const auto& [typed, stored] : {std::pair{"on", "1\n"}, {"off", "0\n"}}) {
    EXPECT_EQ(camera().ctl({"settings", "sound-on-boot="s + typed}).status, 0);
    EXPECT_EQ(camera().exec({"fw_printenv", "-n", "kova_audioplay"}).out, stored);
  }
}

TEST_F(SettingsSystem, ChangesApplyUntilResetWithoutFlashOrReboot) {
  Variant answer = change(camera(), {"name=Changed", "timezone=Europe/Paris", "region=US"});
  EXPECT_EQ(answer["timezone"], Variant("Europe/Paris"));
  EXPECT_EQ(setting(kZoneKey), "Europe/Paris");
  EXPECT_EQ(systemZone(), "/usr/share/zoneinfo/Europe/Paris");
  EXPECT_EQ(readFile(camera().root() / "etc/TZ"), "CET-1CEST,M3.5.0,M10.5.0/3\n");
  const int boot = camera().boots();
  const std::size_t saves = runs("/bin/cfgmtd");
  EXPECT_EQ(camera().ctl({"reset-settings"}).status, 0);
  EXPECT_EQ(setting(kNameKey), "Kova Virtual Camera");
  EXPECT_EQ(setting(kZoneKey), "GMT");
  EXPECT_EQ(setting(kRegionKey), "US");
  EXPECT_EQ(systemZone(), "/usr/share/zoneinfo/GMT");
  // A save or a reset would run five seconds after its request.
  EXPECT_FALSE(eventually([&] { return runs("/bin/cfgmtd") != saves; }, std::chrono::seconds(6)));
  EXPECT_EQ(camera().boots(), boot);
}

TEST_F(SettingsSystem, HangingToolIsEndedAfterItsTime) {
  const char* tool = "kova_cmd_apply_camera_name.sh";
  camera().misbehave(tool, "sleep", "1000");
  const LogMark mark(camera());
  const auto start = std::chrono::steady_clock::now();
  BusClient client(camera().busAddress());
  client.post(request("ChangeDeviceSettings", {{"name", text("Porch")}}));
  EXPECT_TRUE(eventually(
      [&] {
        client.pump();
        return client.outstanding() == 0;
      },
      std::chrono::seconds(40)));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
  EXPECT_TRUE(mark.waitFor(": /bin/kova_cmd_apply_camera_name.sh exceeded its time"));
  EXPECT_TRUE(mark.waitFor(": Failed to apply camera name"));
  // Its children ended with it.
  EXPECT_TRUE(eventually([&] { return processesOf(camera(), "kova_cmd_apply_").empty(); }));
  camera().behave(tool);
}

}  // namespace
}  // namespace kova::system_test
