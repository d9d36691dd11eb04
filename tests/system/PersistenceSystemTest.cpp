#include <gtest/gtest.h>

#include "Camera.h"

namespace kova::system_test {
namespace {

TEST(PersistenceSystem, WhatIsNotSavedIsLostAtAReboot) {
  Camera camera;
  writeFile(camera.root() / "etc/persistent/note", "unsaved");
  ASSERT_EQ(camera.exec({"/usr/bin/reboot"}).status, 0);
  ASSERT_TRUE(camera.waitForBoot(2));
  EXPECT_FALSE(std::filesystem::exists(camera.root() / "etc/persistent/note"));
}

TEST(PersistenceSystem, ASaveAndAFactoryResetDoWhatTheySay) {
  Camera camera;
  writeFile(camera.root() / "etc/persistent/note", "saved");
  const Result saved = camera.ctl({"save", "--sync"});
  ASSERT_EQ(saved.status, 0) << saved.err;
  EXPECT_NE(camera.tools().find("/bin/cfgmtd -w -p /etc/ -m"), std::string::npos);

  ASSERT_EQ(camera.exec({"/usr/bin/reboot"}).status, 0);
  ASSERT_TRUE(camera.waitForBoot(2));
  EXPECT_EQ(readFile(camera.root() / "etc/persistent/note"), "saved");

  ASSERT_EQ(camera.ctl({"reset-defaults", "--yes"}).status, 0);
  ASSERT_TRUE(camera.waitForLog("Reset to defaults"));
  ASSERT_TRUE(camera.waitForBoot(3));
  EXPECT_FALSE(std::filesystem::exists(camera.root() / "etc/persistent/note"));
}

TEST(PersistenceSystem, ARebootRequestSavesAndReboots) {
  Camera camera;
  writeFile(camera.root() / "etc/persistent/note", "by reboot");
  // No status is expected: the camera may take the client down with it.
  camera.ctl({"reboot", "--delay", "100"});
  ASSERT_TRUE(camera.waitForBoot(2));
  EXPECT_EQ(readFile(camera.root() / "etc/persistent/note"), "by reboot");
}

TEST(PersistenceSystem, AFailingFlashIsReportedAndTriedAgainUntilItWorks) {
  Camera camera;
  camera.misbehave("cfgmtd", "exit", "1");
  EXPECT_NE(camera.ctl({"save", "--sync"}).status, 0);
  ASSERT_TRUE(camera.waitForLog("Persistence.persist:"));
  ASSERT_TRUE(camera.waitForLog("Failed to persist"));
  camera.behave("cfgmtd");
  // The failed save stays due: five seconds after it was asked for it is written without being
  // asked again.
  EXPECT_TRUE(camera.waitForLog(": Persisted", std::chrono::seconds(12)));
}

}  // namespace
}  // namespace kova::system_test
