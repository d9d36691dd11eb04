#include "SettingsFixture.h"

namespace kova::ctlserver {
namespace {

TEST_F(SettingsTest, RequestWithoutFieldsReadsNameTimeZoneAndRegion) {
  EXPECT_TRUE(update({}));
  EXPECT_EQ(reply_, Variant(Map{{"name", "Front door"}, {"timezone", "GMT"}, {"region", "US"}}));
  EXPECT_THAT(platform().journal,
              ElementsAre("SystemCfgManager::init", "get resolv.host.1.name", "get system.timezone",
                          "get system.region", "close false false"));
  EXPECT_THAT(platform().log, IsEmpty());
}

TEST_F(SettingsTest, GivenSettingsAreAppliedInOrderAndReported) {
  info_["sysid"] = kTimelapseModel;
  const Map given{{"name", "Yard"},
                  {"timezone", "UTC"},
                  {"region", "Europe/Paris"},
                  {"timelapseminutes", 0},
                  {"soundOnBoot", true}};
  EXPECT_TRUE(update(given));
  EXPECT_EQ(reply_, Variant(given));
  EXPECT_THAT(
      platform().journal,
      ElementsAre("SystemCfgManager::init", "set resolv.host.1.name=Yard",
                  "run /bin/kova_cmd_apply_camera_name.sh", "kill kova_discovery_server 15",
                  "setTimeZone UTC", "set system.timezone=UTC", "set system.region=Europe/Paris",
                  "setTimeZone Europe/Paris", "set system.timelapseminutes=0", "close true false",
                  "run /usr/bin/fw_setenv kova_audioplay 1"));
}

TEST_F(SettingsTest, ReplyIsEmptiedBeforeStoreIsOpened) {
  reply_["stale"] = true;
  platform().config.initResult = false;
  EXPECT_FALSE(update({}));
  EXPECT_TRUE(reply_.isEmpty());
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to initialize system.cfg manager")));
  EXPECT_THAT(platform().journal, ElementsAre("SystemCfgManager::init"));
}

TEST_F(SettingsTest, PersistFieldSchedulesNoSave) {
  ASSERT_TRUE(server_.init(nullptr));
  EXPECT_TRUE(update({{"name", "Yard"}, {"persist", true}}));
  platform().commands.clear();
  platform().nowMs += 60'000;
  server_.service(0);
  EXPECT_THAT(platform().commands, IsEmpty());
}

TEST_F(SettingsTest, ReplyKeepsContentFilledBeforeFailure) {
  platform().config.failingGet = "system.region";
  EXPECT_FALSE(update({{"name", "Yard"}}));
  EXPECT_EQ(reply_, Variant(Map{{"name", "Yard"}, {"timezone", "GMT"}}));
}

TEST_F(SettingsTest, UnreadableSettingFails) {
  for (const std::string key : {"resolv.host.1.name", "system.timezone", "system.region"}) {
    SCOPED_TRACE(key);
    SetUp();
    platform().config.failingGet = key;
    expectFailure({}, "Failed to get " + key);
    EXPECT_EQ(reply_.find(key.substr(key.rfind('.') + 1)), nullptr);
  }
}

// The camera's name.

TEST_F(SettingsTest, NameMissingFromStoreFails) {
  platform().config.values.erase("resolv.host.1.name");
  expectFailure({}, "Failed to get resolv.host.1.name");
  EXPECT_TRUE(reply_.isEmpty());
}

TEST_F(SettingsTest, MissingNameIsAddedIfGiven) {
  platform().config.values.erase("resolv.host.1.name");
  EXPECT_TRUE(update({{"name", "Yard"}}));
  EXPECT_EQ(stored("resolv.host.1.name"), "Yard");
}

TEST_F(SettingsTest, SameNameIsNeitherAppliedNorAnnouncedNorWritten) {
  EXPECT_TRUE(update({{"name", "Front door"}}));
  EXPECT_EQ(reply_["name"], Variant("Front door"));
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_THAT(platform().signalled, IsEmpty());
  EXPECT_EQ(platform().journal.back(), "close false false");
}

TEST_F(SettingsTest, FailingNameScriptIsOnlyLogged) {
  platform().onRun = [](const std::string&) { return fakes::ProcessResult{1, "", ""}; };
  EXPECT_TRUE(update({{"name", "Yard"}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to apply camera name")));
  EXPECT_THAT(platform().signalled, ElementsAre("kova_discovery_server 15"));
  EXPECT_EQ(stored("resolv.host.1.name"), "Yard");
}

TEST_F(SettingsTest, UnstorableNameIsNotApplied) {
  platform().config.failingSet = "resolv.host.1.name";
  expectFailure({{"name", "Yard"}}, "Failed to set resolv.host.1.name to Yard");
  EXPECT_TRUE(reply_.isEmpty());
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_THAT(platform().signalled, IsEmpty());
}

TEST_F(SettingsTest, NameWithLineBreakAddsNoSetting) {
  const auto before = platform().config.values;
  EXPECT_FALSE(update({{"name", "Yard\nusers.1.name=me"}}));
  EXPECT_EQ(platform().config.values, before);
  EXPECT_THAT(platform().commands, IsEmpty());
}

TEST_F(SettingsTest, NameIsNeverPassedToProgram) {
  EXPECT_TRUE(update({{"name", "$(reboot); `id` | \"'&"}}));
  EXPECT_EQ(stored("resolv.host.1.name"), "$(reboot); `id` | \"'&");
  EXPECT_THAT(platform().commands, ElementsAre("/bin/kova_cmd_apply_camera_name.sh"));
}

TEST_F(SettingsTest, EmptyNameIsAccepted) {
  EXPECT_TRUE(update({{"name", ""}}));
  EXPECT_EQ(stored("resolv.host.1.name"), "");
}

// The time zone.

TEST_F(SettingsTest, AbsentTimeZoneReadsAsEmpty) {
  platform().config.values.erase("system.timezone");
  EXPECT_TRUE(update({}));
  EXPECT_EQ(reply_["timezone"], Variant(""));
}

TEST_F(SettingsTest, TimeZoneRefusedBySystemIsNotStored) {
  platform().setTimeZoneResult = false;
  expectFailure({{"timezone", "../../etc/shadow"}}, "Failed to write timezone");
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("set system"))));
  EXPECT_EQ(reply_, Variant(Map{{"name", "Front door"}}));
}

TEST_F(SettingsTest, UnstorableTimeZoneFailsAfterSystemChange) {
  platform().config.failingSet = "system.timezone";
  expectFailure({{"timezone", "UTC"}}, "Failed to set system.timezone to UTC");
  EXPECT_THAT(platform().journal, Contains("setTimeZone UTC"));
  EXPECT_EQ(reply_.find("timezone"), nullptr);
}

TEST_F(SettingsTest, SameTimeZoneIsAppliedAgainButNotWritten) {
  EXPECT_TRUE(update({{"timezone", "GMT"}}));
  EXPECT_THAT(platform().journal, Contains("setTimeZone GMT"));
  EXPECT_EQ(platform().journal.back(), "close false false");
}

}  // namespace
}  // namespace kova::ctlserver
