#include <sys/stat.h>

#include <csignal>

#include "BusClient.h"
#include "SharedCamera.h"

namespace kova::system_test {
namespace {

using std::chrono::seconds;

constexpr char kSave[] = "/bin/cfgmtd -w -p /etc/ -m\n";

class ToolsSystem : public SharedCamera {
 protected:
  void TearDown() override {
    camera().behave("cfgmtd");
    camera().behave("reboot");
  }

  static Append save() { return request("SaveToFlash", {{"sync", flag(true)}}); }
  static std::string call(const Append& body) {
    return BusClient(camera().busAddress()).call(body);
  }
  static std::size_t runs(const std::string& tool) { return occurrences(camera().tools(), tool); }

  // The failed save stays due and is tried again; it must not reach into the next test.
  static void settle() {
    camera().behave("cfgmtd");
    EXPECT_EQ(call(save()), "status 0");
  }
};

TEST_F(ToolsSystem, FailingOrKilledSaveToolFailsRequest) {
  for (const auto& [setting, content] : {std::pair{"exit", "1"}, {"kill", "KILL"}}) {
    const LogMark mark(camera());
    const HostProcess server = controlServer(camera());
    camera().misbehave("cfgmtd", setting, content);
    EXPECT_EQ(call(save()), "status 1") << setting;
    EXPECT_TRUE(mark.waitFor("kova_ctlserver Persistence.persist:"));
    EXPECT_TRUE(mark.waitFor(": Failed to persist"));
    EXPECT_EQ(mark.text().find(": Persisted"), std::string::npos);
    settle();
    EXPECT_TRUE(mark.waitFor(": Persisted"));
    EXPECT_EQ(controlServer(camera()).pid(), server.pid());
  }
}

TEST_F(ToolsSystem, MegabyteOfToolOutputIsHarmless) {
  const HostProcess server = controlServer(camera());
  ASSERT_EQ(call(save()), "status 0");
  const std::size_t before = server.peakResidentKiB();
  camera().misbehave("cfgmtd", "stdout", std::string(1'000'000, 'o'));
  camera().misbehave("cfgmtd", "stderr", std::string(1'000'000, 'e'));
  EXPECT_EQ(call(save()), "status 0");
  EXPECT_LT(server.peakResidentKiB(), before + 512);
}

TEST_F(ToolsSystem, RequestsDuringHangingToolAreAnsweredAfterIt) {
  camera().misbehave("cfgmtd", "sleep", "2");
  BusClient saver(camera().busAddress());
  BusClient other(camera().busAddress());
  const auto start = std::chrono::steady_clock::now();
  const std::size_t before = runs(kSave);
  saver.post(save());
  saver.pump();
  ASSERT_TRUE(eventually([&] { return runs(kSave) > before; }));
  EXPECT_EQ(other.call(request("GetSystemStats")), "status 0");
  EXPECT_GE(std::chrono::steady_clock::now() - start, seconds(2));
  EXPECT_TRUE(eventually([&] {
    saver.pump();
    return saver.outstanding() == 0;
  }));
  EXPECT_EQ(saver.outcomes().count("status 0"), 1U);
}

TEST_F(ToolsSystem, HangingToolIsEndedAfterItsTime) {
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
      seconds(40)));
  EXPECT_GE(std::chrono::steady_clock::now() - start, seconds(15));
  EXPECT_TRUE(mark.waitFor(": /bin/kova_cmd_apply_camera_name.sh exceeded its time"));
  EXPECT_TRUE(mark.waitFor(": Failed to apply camera name"));
  // Its children went with it.
  EXPECT_TRUE(eventually([&] { return processesOf(camera(), "kova_cmd_apply_").empty(); }));
  camera().behave(tool);
  EXPECT_EQ(call(request("GetSystemStats")), "status 0");
}

TEST_F(ToolsSystem, FailedRebootIsReportedAndWaitedFor) {
  const LogMark mark(camera());
  const int boot = camera().boots();
  const std::size_t saves = runs(kSave);
  const HostProcess server = controlServer(camera());
  camera().misbehave("reboot", "exit", "1");
  BusClient client(camera().busAddress());
  client.post(request("Reboot"));
  client.pump();
  EXPECT_TRUE(mark.waitFor("kova_ctlserver CtlServer.reboot:"));
  EXPECT_TRUE(mark.waitFor(": Failed to perform reboot"));
  EXPECT_TRUE(mark.waitFor(": Entering reboot wait mode"));
  EXPECT_EQ(runs(kSave), saves + 1);
  // It serves nobody any more, and only that: a second request would have its save.
  client.post(save());
  EXPECT_FALSE(eventually(
      [&] {
        client.pump();
        return client.outstanding() < 2 || runs(kSave) > saves + 1;
      },
      seconds(1)));
  EXPECT_EQ(camera().boots(), boot);
  // Who shuts the system down need not kill it.
  server.signal(SIGTERM);
  EXPECT_TRUE(server.waitForEnd());
  EXPECT_TRUE(camera().waitForService());
}

TEST_F(ToolsSystem, ServiceIsStartedAndStopped) {
  const auto script = camera().root() / "etc/sv/testservice/run";
  writeFile(script, "#!/bin/sh\nexec sleep 1000\n");
  ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  const std::vector<Entry> fields = {{"service", text("testservice")}, {"from", text("somebody")}};
  const LogMark mark(camera());
  EXPECT_EQ(camera().pidOf("testservice"), "");
  EXPECT_EQ(call(request("StartService", fields)), "status 0");
  EXPECT_NE(camera().pidOf("testservice"), "");
  EXPECT_TRUE(mark.waitFor("CtlServer.HandleRequest:"));
  EXPECT_TRUE(mark.waitFor(": somebody tried to start testservice service and succeeded"));

  EXPECT_EQ(call(request("StopService", fields)), "status 0");
  EXPECT_EQ(camera().pidOf("testservice"), "");
  EXPECT_TRUE(mark.waitFor(": somebody tried to stop testservice service and succeeded"));
}

}  // namespace
}  // namespace kova::system_test
