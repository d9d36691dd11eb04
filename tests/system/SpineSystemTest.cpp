#include <csignal>

#include "BusClient.h"
#include "SharedCamera.h"
#include "kova/variant/Variant.h"

namespace kova::system_test {
namespace {

using variant::Variant;
using variant::VariantClass;

constexpr char kDescription[] = R"({
  "name": "Second Camera", "sysid": 42264, "feature_wifi": 1, "feature_battery": 1,
  "reset_button_gpio": "/run/gpio/reset_button/value"
})";

class SpineSystem : public SharedCamera {
 protected:
  // Expects that the control server has exited and a new one serves.
  static void expectRestart(const HostProcess& before) {
    EXPECT_TRUE(before.waitForEnd());
    EXPECT_TRUE(camera().waitForService());
    EXPECT_NE(controlServer(camera()).pid(), before.pid());
    EXPECT_EQ(camera().ctl({"stats"}).status, 0);
  }
};

Variant statistics(const Camera& camera, const std::vector<std::string>& more = {}) {
  std::vector<std::string> arguments = {"call", "GetSystemStats", "--json"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  const Result result = camera.ctl(arguments);
  EXPECT_EQ(result.status, 0) << result.err;
  Variant document;
  EXPECT_GT(Variant::FromJSON(result.out, document), 0) << result.out;
  return document["result"]["payload"];
}

std::vector<std::string> keysOf(const Variant& map) {
  std::vector<std::string> keys;
  for (const auto& [key, ignored] : map.elements()) {
    keys.push_back(key);
  }
  return keys;
}

// Must run first, while the log contains only the boot.
TEST_F(SpineSystem, BootsWithOneProcessAndNoComplaints) {
  EXPECT_EQ(processesOf(camera(), "kova_ctlserver").size(), 1U);
  const LogMark mark(camera());
  EXPECT_EQ(camera().log().find("kova_ctlserver "), std::string::npos) << camera().log();
  EXPECT_EQ(camera().log().find("local0.err"), std::string::npos) << camera().log();
  // Cross-check: both texts appear once something fails.
  camera().misbehave("cfgmtd", "exit", "1");
  EXPECT_NE(camera().ctl({"save", "--sync"}).status, 0);
  camera().behave("cfgmtd");
  ASSERT_TRUE(mark.waitFor("kova_ctlserver "));
  EXPECT_TRUE(mark.waitFor("local0.err"));
  EXPECT_EQ(camera().ctl({"save", "--sync"}).status, 0);
}

// The camera sees the host's /sys, so the host determines whether there is a battery.
TEST(SpineSystemWithFeatures, StatisticsFollowDescriptionOfEachCamera) {
  Camera first;
  Camera second(kDescription);
  std::vector<std::string> sections = {"cpu", "cpuinfo", "loadavg", "memory", "network", "uptime"};
  const Variant plain = statistics(first);
  EXPECT_EQ(keysOf(plain), sections);
  const Variant* processors = plain.GetKeyChain(VariantClass::Container, {"cpu", "arr"});
  ASSERT_NE(processors, nullptr);
  EXPECT_EQ(processors->Size(), plain.find("cpu")->find("cnt")->toNumber<std::uint64_t>());
  sections.emplace_back("wifi");
  const Variant wireless = statistics(second, {"battery:=false"});
  EXPECT_EQ(keysOf(wireless), sections);
  const Variant* signal = wireless.GetKeyChain(VariantClass::Number, {"wifi", "signalStrength"});
  const Variant* quality = wireless.GetKeyChain(VariantClass::Number, {"wifi", "quality"});
  ASSERT_TRUE(signal != nullptr && quality != nullptr);
  EXPECT_EQ(quality->toNumber<int>(), (signal->toNumber<int>() + 100) * 2);
  if (second.shell("grep -qsx Battery /sys/class/power_supply/*/type").status == 0) {
    sections.emplace(sections.begin(), "battery");
    const Variant all = statistics(second);
    EXPECT_EQ(keysOf(all), sections);
    EXPECT_NE(all.GetKeyChain(VariantClass::Number, {"battery", "percentage"}), nullptr);
  } else {
    EXPECT_NE(second.ctl({"call", "GetSystemStats"}).status, 0);
    EXPECT_TRUE(second.waitForLog("CtlServer.readStats:"));
    EXPECT_TRUE(second.waitForLog("Failed to read battery statistics"));
  }

  EXPECT_EQ(second.ctl({"save", "--sync"}).status, 0);
  EXPECT_TRUE(second.waitForLog(": Persisted"));
  EXPECT_EQ(first.tools(), "");
  EXPECT_EQ(first.log().find("Persisted"), std::string::npos);
  const auto hostOf = [](const Camera& camera) {
    return readFile(camera.root() / "etc/system.cfg").find("Second Camera") != std::string::npos;
  };
  EXPECT_FALSE(hostOf(first));
  EXPECT_TRUE(hostOf(second));
  EXPECT_NE(controlServer(first).pid(), controlServer(second).pid());
}

TEST_F(SpineSystem, SigtermIsLoggedAndWritesPendingSave) {
  const LogMark mark(camera());
  const HostProcess server = controlServer(camera());
  {
    BusClient client(camera().busAddress());
    ASSERT_EQ(client.call(request("SaveToFlash")), "status 0");
    server.signal(SIGTERM);
  }
  expectRestart(server);
  ASSERT_TRUE(mark.waitFor("kova_ctlserver: service ended: exit status 0"));
  const std::string log = mark.text();
  const auto told = log.find("main.main:");
  ASSERT_NE(log.find(": SIGTERM received", told), std::string::npos) << log;
  // In this order: SIGTERM caused the write, not the quiet period.
  EXPECT_NE(log.find(": Persisted", told), std::string::npos) << log;
  EXPECT_EQ(occurrences(log, ": Persisted"), 1U);
}

TEST_F(SpineSystem, LostBusEndsWith255AndBothAreRestarted) {
  const LogMark mark(camera());
  const HostProcess server = controlServer(camera());
  const auto buses = processesOf(camera(), "dbus-daemon");
  ASSERT_EQ(buses.size(), 1U);
  HostProcess(buses.front()).signal(SIGKILL);
  EXPECT_TRUE(server.waitForEnd());
  EXPECT_TRUE(mark.waitFor("Failed to service IPC"));
  EXPECT_TRUE(mark.waitFor("kova_ctlserver: service ended: exit status 255"));
  EXPECT_TRUE(mark.waitFor("bus: service ended: signal 9"));
  expectRestart(server);
}

TEST_F(SpineSystem, DescriptionWithoutSysidCrashes) {
  const auto description = camera().root() / "usr/share/kova/camera_info.json";
  const std::string good = readFile(description);
  const LogMark mark(camera());
  const HostProcess server = controlServer(camera());
  writeFile(description, R"({"name": "No Number", "feature_wifi": 0, "feature_battery": 0})");
  server.signal(SIGTERM);
  EXPECT_TRUE(mark.waitFor("Key \"sysid\" not available"));
  EXPECT_TRUE(mark.waitFor("kova_ctlserver: service ended: signal 6"));
  writeFile(description, good);

  const Result report = camera().shell("cat /var/log/kova_crash.*");
  EXPECT_NE(report.out.find("Crashed by signal 6"), std::string::npos) << report.out;
  expectRestart(server);
}

}  // namespace
}  // namespace kova::system_test
