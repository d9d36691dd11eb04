#include <csignal>

#include "BusClient.h"
#include "SharedCamera.h"

namespace kova::system_test {
namespace {

TEST(PersistenceSystem, RebootSavesAndFactoryResetErases) {
  Camera camera;
  writeFile(camera.root() / "etc/persistent/note", "saved");
  // The status is not checked: the reboot may kill the client.
  camera.ctl({"reboot", "--delay", "100ms"});
  ASSERT_TRUE(camera.waitForBoot(2));
  EXPECT_EQ(readFile(camera.root() / "etc/persistent/note"), "saved");

  ASSERT_EQ(camera.ctl({"reset-defaults", "--yes"}).status, 0);
  ASSERT_TRUE(camera.waitForLog("Reset to defaults"));
  ASSERT_TRUE(camera.waitForBoot(3));
  EXPECT_FALSE(std::filesystem::exists(camera.root() / "etc/persistent/note"));
}

TEST(PersistenceSystem, SigtermDuringRebootWaitRunsReset) {
  Camera camera;
  const auto isSaved = [&] { return std::filesystem::is_symlink(camera.flash() / "etc"); };
  EXPECT_EQ(camera.ctl({"save", "--sync"}).status, 0);
  camera.misbehave("reboot", "exit", "0");  // succeeds without rebooting
  const LogMark mark(camera);
  const HostProcess server = controlServer(camera);
  BusClient client(camera.busAddress());
  EXPECT_EQ(client.call(request("ResetToDefaults")), "status 0");
  client.post(request("Reboot"));
  client.pump();
  ASSERT_TRUE(mark.waitFor(": Entering reboot wait mode"));
  EXPECT_TRUE(isSaved());
  server.signal(SIGTERM);
  EXPECT_TRUE(server.waitForEnd(std::chrono::seconds(30)));
  EXPECT_TRUE(mark.waitFor("kova_ctlserver: service ended: exit status 0"));
  const std::string log = mark.text();
  const auto told = log.find(": SIGTERM received");
  ASSERT_NE(told, std::string::npos) << log;
  EXPECT_NE(log.find(": Reset to defaults", told), std::string::npos) << log;
  EXPECT_FALSE(isSaved());
}

TEST(PersistenceSystem, FailingFlashDoesNotFloodLog) {
  Camera camera;
  const LogMark mark(camera);
  camera.misbehave("cfgmtd", "exit", "1");
  EXPECT_NE(camera.ctl({"save", "--sync"}).status, 0);
  EXPECT_TRUE(mark.waitFor("Failed to persist ... repeated ", std::chrono::seconds(20)));
  const std::size_t runs = occurrences(camera.tools(), "/bin/cfgmtd -w");
  const std::size_t lines = mark.linesWith("Failed to persist").size();
  EXPECT_TRUE(eventually([&] { return occurrences(camera.tools(), "/bin/cfgmtd -w") > runs + 50; },
                         std::chrono::seconds(30)));
  EXPECT_LT(mark.linesWith("Failed to persist").size(), lines + 25) << mark.text();
  camera.behave("cfgmtd");
  EXPECT_TRUE(mark.waitFor(": Persisted"));
}

}  // namespace
}  // namespace kova::system_test
