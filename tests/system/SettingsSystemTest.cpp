#include <set>

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

/// The payload of ChangeDeviceSettings with these assignments, whatever its status.
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
  // Its pid once it is one that is up.
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
  // It ends of itself on SIGTERM, with status 0, and comes back under another pid.
  EXPECT_TRUE(mark.waitFor(kDiscovery + ": service ended: exit status 0"s));
  EXPECT_TRUE(eventually([&] {
    const std::string now = camera().pidOf(kDiscovery);
    return !now.empty() && now != discoveryBefore;
  }));
}

TEST_F(SettingsSystem, ZoneIsAppliedAndStored) {
  EXPECT_EQ(change(camera(), {"timezone=Europe/Paris"})["timezone"], Variant("Europe/Paris"));
  EXPECT_EQ(systemZone(), "/usr/share/zoneinfo/Europe/Paris");
  EXPECT_EQ(readFile(camera().root() / "etc/TZ"), "CET-1CEST,M3.5.0,M10.5.0/3\n");
  EXPECT_EQ(setting(kZoneKey), "Europe/Paris");
}

TEST_F(SettingsSystem, BootSoundIsInBootEnvironment) {
  for (const auto& [typed, stored] : {std::pair{"on", "1\n"}, {"off", "0\n"}}) {
    EXPECT_EQ(camera().ctl({"settings", "sound-on-boot="s + typed}).status, 0);
    EXPECT_EQ(camera().exec({"fw_printenv", "-n", "kova_audioplay"}).out, stored);
  }
}

TEST_F(SettingsSystem, ResetSettingsRestoresNameAndZoneWithoutFlashOrReboot) {
  change(camera(), {"name=Changed", "timezone=Europe/Paris", "region=US"});
  const int boot = camera().boots();
  const std::size_t saves = runs("/bin/cfgmtd");
  EXPECT_EQ(camera().ctl({"reset-settings"}).status, 0);
  EXPECT_EQ(setting(kNameKey), "Kova Virtual Camera");
  EXPECT_EQ(setting(kZoneKey), "GMT");
  EXPECT_EQ(setting(kRegionKey), "US");
  EXPECT_EQ(systemZone(), "/usr/share/zoneinfo/GMT");
  // A save or a reset would come five seconds after it was asked for.
  EXPECT_FALSE(eventually([&] { return runs("/bin/cfgmtd") != saves; }, std::chrono::seconds(6)));
  EXPECT_EQ(camera().boots(), boot);
}

class HostileSettings : public SettingsSystem {
 protected:
  void SetUp() override {
    SettingsSystem::SetUp();
    change(camera(), {"name=Plain", "region=Plain"});
    ASSERT_TRUE(eventually([] { return readFile(camera().root() / "etc/hostname") == "Plain\n"; }));
    passwd_ = readFile(camera().root() / "etc/passwd");
    paths_ = paths();
    boot_ = camera().boots();
  }
  void TearDown() override {
    // The tool that applies a name replaces its file a moment later.
    EXPECT_TRUE(eventually([&] { return paths() == paths_; }));
    EXPECT_EQ(readFile(camera().root() / "etc/passwd"), passwd_);
    EXPECT_EQ(camera().boots(), boot_);
    EXPECT_EQ(runs("/usr/bin/reboot"), 0U);
    SettingsSystem::TearDown();
  }

  static std::string send(const std::string& field, const std::string& content) {
    return BusClient(camera().busAddress())
        .call(request("ChangeDeviceSettings", {{field, bytes(content)}}));
  }

 private:
  static std::set<std::string> paths() {
    std::set<std::string> found;
    for (const char* folder : {"", "etc", "etc/persistent", "tmp", "usr/share/zoneinfo"}) {
      for (const auto& entry : std::filesystem::directory_iterator(camera().root() / folder)) {
        found.insert(entry.path());
      }
    }
    return found;
  }

  std::string passwd_;
  std::set<std::string> paths_;
  int boot_ = 0;
};

const std::string kHarmless[] = {"; reboot",   "$(touch /tmp/x)", "`touch /tmp/x`",
                                 "| reboot &", "../../tmp",       "'\"\\",
                                 "%s%n%s",     "\xff\xfe\x80",    "a=b",
                                 "-n",         "\x1b[2J",         "#"};
const std::string kBreaking[] = {"a\nusers.1.name=evil", "a\r\nb", "\n", "a\0b"s, "\0"s};

TEST_F(HostileSettings, NamesAndRegionsAreStoredVerbatimOnOneLine) {
  for (const auto& [field, key] : {std::pair{"name", kNameKey}, {"region", kRegionKey}}) {
    for (const std::string& content : kHarmless) {
      const std::string before = cfg();
      EXPECT_EQ(send(field, content), "status 0") << field << " " << content;
      EXPECT_EQ(cfg(), withSetting(before, key, content)) << field << " " << content;
    }
  }
}

TEST_F(HostileSettings, NamesAndRegionsAddNoLineBreakOrNul) {
  const std::string before = cfg();
  for (const char* field : {"name", "region"}) {
    for (const std::string& content : kBreaking) {
      EXPECT_EQ(send(field, content), "status 1") << field << " " << content;
    }
  }
  EXPECT_EQ(cfg(), before);
}

TEST_F(HostileSettings, UnknownZonesAreRefused) {
  const std::string before = cfg();
  const std::string zone = systemZone();
  for (const std::string& content : kHarmless) {
    EXPECT_EQ(send("timezone", content), "status 1") << content;
  }
  for (const std::string& content : kBreaking) {
    EXPECT_EQ(send("timezone", content), "status 1") << content;
    EXPECT_EQ(send("timezone", "GMT" + content), "status 1") << content;
  }
  for (const char* path : {"", ".", "..", "../../../etc/passwd", "/etc/passwd", "Europe/../GMT",
                           "Europe", "/usr/share/zoneinfo/GMT", "GMT/"}) {
    EXPECT_EQ(send("timezone", path), "status 1") << path;
  }
  EXPECT_EQ(cfg(), before);
  EXPECT_EQ(systemZone(), zone);
}

TEST_F(HostileSettings, MegabyteIsRefusedByStoreOrBus) {
  // What the bus takes at most in all, and the store. The store has more beside the value.
  constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
  const std::string before = cfg();
  const std::string zone = systemZone();
  for (const char* field : {"name", "timezone", "region"}) {
    EXPECT_EQ(send(field, std::string(kMebibyte - 200, 'a')), "status 1") << field;
    EXPECT_EQ(send(field, std::string(kMebibyte, 'a')), "kova.Error.InvalidMessage") << field;
  }
  EXPECT_EQ(cfg(), before);
  EXPECT_EQ(systemZone(), zone);
}

}  // namespace
}  // namespace kova::system_test
