#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include "CtlServer.h"
#include "Platform.h"

namespace kova::ctlserver {
namespace {

using fakes::LogLine;
using fakes::platform;
using ipc::messages::ChangeDeviceSettings;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using variant::Variant;

constexpr std::uint32_t kPlainModel = 42000;
constexpr std::uint32_t kTimelapseModel = 42321;

LogLine error(const std::string& text) {
  return {"CtlServer", "updateSettings", LOG_ERR, 0, text};
}

class SettingsTest : public testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    platform().config.values = {{"resolv.host.1.name", "Front door"},
                                {"system.timezone", "GMT"},
                                {"system.region", "US"},
                                {"system.timelapseminutes", "1"}};
    info_["sysid"] = kPlainModel;
  }

  bool update(const Variant::Map& fields) {
    ChangeDeviceSettings request{Variant(fields)};
    request.NormalizeFields();
    return server_.updateSettings(request, reply_);
  }

  static std::string stored(const std::string& key) { return platform().config.values.at(key); }

  static void expectNotClosed() {
    EXPECT_THAT(platform().journal, Not(Contains(StartsWith("close"))));
  }

  variant::CameraInfo info_;
  CtlServer server_{info_};
  Variant reply_;
};

TEST_F(SettingsTest, RequestWithoutFieldsReadsNameTimeZoneAndRegion) {
  EXPECT_TRUE(update({}));
  EXPECT_EQ(reply_,
            Variant(Variant::Map{{"name", "Front door"}, {"timezone", "GMT"}, {"region", "US"}}));
  EXPECT_THAT(platform().journal,
              ElementsAre("SystemCfgManager::init", "get resolv.host.1.name", "get system.timezone",
                          "get system.region", "close false false"));
  EXPECT_THAT(platform().log, IsEmpty());
}

TEST_F(SettingsTest, EveryGivenSettingIsAppliedInOrderAndReported) {
  info_["sysid"] = kTimelapseModel;
  EXPECT_TRUE(update({{"name", "Yard"},
                      {"timezone", "UTC"},
                      {"region", "Europe/Paris"},
                      {"timelapseminutes", 0},
                      {"soundOnBoot", true}}));
  EXPECT_EQ(reply_, Variant(Variant::Map{{"name", "Yard"},
                                         {"timezone", "UTC"},
                                         {"region", "Europe/Paris"},
                                         {"timelapseminutes", 0},
                                         {"soundOnBoot", true}}));
  EXPECT_THAT(
      platform().journal,
      ElementsAre("SystemCfgManager::init", "set resolv.host.1.name=Yard",
                  "run /bin/kova_cmd_apply_camera_name.sh", "kill kova_discovery_server 15",
                  "setTimeZone UTC", "set system.timezone=UTC", "set system.region=Europe/Paris",
                  "setTimeZone Europe/Paris", "set system.timelapseminutes=0", "close true false",
                  "run /usr/bin/fw_setenv kova_audioplay 1"));
}

TEST_F(SettingsTest, ReplyIsEmptiedBeforeTheStoreIsOpened) {
  reply_["stale"] = true;
  platform().config.initResult = false;
  EXPECT_FALSE(update({}));
  EXPECT_TRUE(reply_.IsEmpty());
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to initialize system.cfg manager")));
  EXPECT_THAT(platform().journal, ElementsAre("SystemCfgManager::init"));
}

TEST_F(SettingsTest, PersistFieldSchedulesNoSave) {
  EXPECT_TRUE(update({{"name", "Yard"}, {"persist", true}}));
  platform().commands.clear();
  platform().nowMs += 60'000;
  server_.service(0);
  EXPECT_THAT(platform().commands, IsEmpty());
}

TEST_F(SettingsTest, ResponseLeavesOutWhatFollowedTheFailure) {
  platform().config.failingGet = "system.region";
  EXPECT_FALSE(update({{"name", "Yard"}}));
  EXPECT_EQ(reply_, Variant(Variant::Map{{"name", "Yard"}, {"timezone", "GMT"}}));
}

// The camera's name.

TEST_F(SettingsTest, NameMissingFromTheStoreFails) {
  platform().config.values.erase("resolv.host.1.name");
  EXPECT_FALSE(update({}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to get resolv.host.1.name")));
  EXPECT_TRUE(reply_.IsEmpty());
  expectNotClosed();
}

TEST_F(SettingsTest, NameMissingFromTheStoreIsAddedWhenGiven) {
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

TEST_F(SettingsTest, NameThatCannotBeStoredIsNotApplied) {
  platform().config.failingSet = "resolv.host.1.name";
  EXPECT_FALSE(update({{"name", "Yard"}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to set resolv.host.1.name to Yard")));
  EXPECT_TRUE(reply_.IsEmpty());
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_THAT(platform().signalled, IsEmpty());
  expectNotClosed();
}

TEST_F(SettingsTest, NameWithALineBreakAddsNoSetting) {
  const auto before = platform().config.values;
  EXPECT_FALSE(update({{"name", "Yard\nusers.1.name=me"}}));
  EXPECT_EQ(platform().config.values, before);
  EXPECT_THAT(platform().commands, IsEmpty());
}

TEST_F(SettingsTest, NameIsNeverHandedToAProgram) {
  EXPECT_TRUE(update({{"name", "$(reboot); `id` | \"'&"}}));
  EXPECT_EQ(stored("resolv.host.1.name"), "$(reboot); `id` | \"'&");
  EXPECT_THAT(platform().commands, ElementsAre("/bin/kova_cmd_apply_camera_name.sh"));
}

TEST_F(SettingsTest, EmptyNameIsAName) {
  EXPECT_TRUE(update({{"name", ""}}));
  EXPECT_EQ(stored("resolv.host.1.name"), "");
}

// The time zone.

TEST_F(SettingsTest, AbsentTimeZoneReadsAsEmpty) {
  platform().config.values.erase("system.timezone");
  EXPECT_TRUE(update({}));
  EXPECT_EQ(reply_["timezone"], Variant(""));
}

TEST_F(SettingsTest, TimeZoneThatTheSystemRefusesIsNotStored) {
  platform().setTimeZoneResult = false;
  EXPECT_FALSE(update({{"timezone", "../../etc/shadow"}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to write timezone")));
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("set system"))));
  EXPECT_EQ(reply_, Variant(Variant::Map{{"name", "Front door"}}));
  expectNotClosed();
}

TEST_F(SettingsTest, TimeZoneThatCannotBeStoredFailsAfterTheSystemHasIt) {
  platform().config.failingSet = "system.timezone";
  EXPECT_FALSE(update({{"timezone", "UTC"}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to set system.timezone to UTC")));
  EXPECT_THAT(platform().journal, Contains("setTimeZone UTC"));
  EXPECT_EQ(reply_.Find("timezone"), nullptr);
  expectNotClosed();
}

TEST_F(SettingsTest, TimeZoneThatCannotBeReadFails) {
  platform().config.failingGet = "system.timezone";
  EXPECT_FALSE(update({}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to get system.timezone")));
  EXPECT_EQ(reply_.Find("timezone"), nullptr);
  expectNotClosed();
}

TEST_F(SettingsTest, SameTimeZoneIsSetInTheSystemAgainButNotWritten) {
  EXPECT_TRUE(update({{"timezone", "GMT"}}));
  EXPECT_THAT(platform().journal, Contains("setTimeZone GMT"));
  EXPECT_EQ(platform().journal.back(), "close false false");
}

// The region.

TEST_F(SettingsTest, AbsentRegionReadsAsEmpty) {
  platform().config.values.erase("system.region");
  EXPECT_TRUE(update({}));
  EXPECT_EQ(reply_["region"], Variant(""));
}

TEST_F(SettingsTest, RegionThatCannotBeReadFails) {
  platform().config.failingGet = "system.region";
  EXPECT_FALSE(update({}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to get system.region")));
  expectNotClosed();
}

TEST_F(SettingsTest, RegionThatCannotBeStoredFailsBeforeItIsLookedAt) {
  platform().config.failingSet = "system.region";
  EXPECT_FALSE(update({{"region", "Europe/Paris"}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to set system.region to Europe/Paris")));
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("setTimeZone"))));
  EXPECT_EQ(reply_.Find("region"), nullptr);
  expectNotClosed();
}

TEST_F(SettingsTest, OlsonRegionSetsTheSystemTimeZoneButNotTheStoredOne) {
  EXPECT_TRUE(update({{"region", "Europe/Paris"}}));
  EXPECT_THAT(platform().journal, Contains("setTimeZone Europe/Paris"));
  EXPECT_THAT(platform().log, ElementsAre(LogLine{"CtlServer", "updateSettings", LOG_INFO, 0,
                                                  "Found Olson format: Europe/Paris"}));
  EXPECT_EQ(stored("system.region"), "Europe/Paris");
  EXPECT_EQ(stored("system.timezone"), "GMT");
  EXPECT_EQ(reply_["timezone"], Variant("GMT"));
  EXPECT_EQ(reply_["region"], Variant("Europe/Paris"));
}

TEST_F(SettingsTest, RegionIsWhatIsTestedNotTheTimeZoneField) {
  EXPECT_TRUE(update({{"timezone", "Europe/Paris"}, {"region", "US"}}));
  EXPECT_THAT(platform().log, IsEmpty());
  EXPECT_EQ(
      std::count(platform().journal.begin(), platform().journal.end(), "setTimeZone Europe/Paris"),
      1);
}

TEST_F(SettingsTest, OlsonRegionThatTheSystemRefusesFailsWithNothingWritten) {
  platform().setTimeZoneResult = false;
  EXPECT_FALSE(update({{"region", "Area/Nowhere"}}));
  EXPECT_THAT(platform().log, Contains(error("Failed to write timezone")));
  EXPECT_EQ(reply_.Find("region"), nullptr);
  EXPECT_EQ(stored("system.region"), "US");
  expectNotClosed();
}

struct RegionCase {
  std::string region;
  bool olson;
};

class RegionFormatTest : public SettingsTest, public testing::WithParamInterface<RegionCase> {};

TEST_P(RegionFormatTest, OnlyAreaSlashCityIsATimeZone) {
  EXPECT_TRUE(update({{"region", GetParam().region}}));
  EXPECT_EQ(platform().logged(LOG_INFO, "Found Olson format: " + GetParam().region),
            GetParam().olson);
  const auto zoneSet = Contains("setTimeZone " + GetParam().region);
  EXPECT_EQ(testing::Matches(zoneSet)(platform().journal), GetParam().olson);
}

INSTANTIATE_TEST_SUITE_P(
    Regions, RegionFormatTest,
    testing::Values(RegionCase{"US/Eastern", true}, RegionCase{"America/Port-au-Prince", true},
                    RegionCase{"America/New_York", true}, RegionCase{"x/-", true},
                    RegionCase{"US", false}, RegionCase{"", false},
                    RegionCase{"America/Argentina/Salta", false}, RegionCase{"Etc/GMT+1", false},
                    RegionCase{"Etc/UTC2", false}, RegionCase{"/Paris", false},
                    RegionCase{"Europe/", false}, RegionCase{"Area_One/City", false},
                    RegionCase{"../shadow", false}, RegionCase{" Europe/Paris", false},
                    RegionCase{"Europe/Paris ", false}, RegionCase{"Europe\\/Paris", false},
                    RegionCase{"Europe/Zürich", false}));

// The time-lapse.

class TimelapseModelTest : public SettingsTest,
                           public testing::WithParamInterface<std::uint32_t> {};

TEST_P(TimelapseModelTest, ReportsAndStoresTheSetting) {
  info_["sysid"] = GetParam();
  EXPECT_TRUE(update({}));
  EXPECT_EQ(reply_["timelapseminutes"], Variant(1));
  EXPECT_TRUE(update({{"timelapseminutes", 0}}));
  EXPECT_EQ(reply_["timelapseminutes"], Variant(0));
  EXPECT_EQ(stored("system.timelapseminutes"), "0");
  EXPECT_TRUE(update({{"timelapseminutes", 1}}));
  EXPECT_EQ(reply_["timelapseminutes"], Variant(1));
  EXPECT_EQ(stored("system.timelapseminutes"), "1");
}

INSTANTIATE_TEST_SUITE_P(Models, TimelapseModelTest, testing::Values(42321U, 42324U));

class OtherModelTest : public SettingsTest, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(OtherModelTest, IgnoresTheSettingEvenWhenGiven) {
  info_["sysid"] = GetParam();
  platform().config.failingGet = platform().config.failingSet = "system.timelapseminutes";
  EXPECT_TRUE(update({}));
  EXPECT_TRUE(update({{"timelapseminutes", 0}}));
  EXPECT_EQ(reply_.Find("timelapseminutes"), nullptr);
  EXPECT_THAT(platform().journal, Not(Contains(HasSubstr("system.timelapseminutes"))));
}

INSTANTIATE_TEST_SUITE_P(Models, OtherModelTest,
                         testing::Values(0U, 42320U, 42322U, 42323U, 42325U, 42278U));

TEST_F(SettingsTest, AnyStoredTimelapseButOneReadsAsOff) {
  info_["sysid"] = kTimelapseModel;
  for (const char* text : {"0", "5", "", "01", "1 ", "11", "true"}) {
    platform().config.values["system.timelapseminutes"] = text;
    EXPECT_TRUE(update({}));
    EXPECT_EQ(reply_["timelapseminutes"], Variant(0)) << text;
  }
}

TEST_F(SettingsTest, TimelapseIsHeldToOnOrOff) {
  info_["sysid"] = kTimelapseModel;
  EXPECT_TRUE(update({{"timelapseminutes", 15}}));
  EXPECT_EQ(stored("system.timelapseminutes"), "1");
  platform().journal.clear();
  EXPECT_TRUE(update({{"timelapseminutes", -7}}));
  EXPECT_THAT(platform().journal, Contains("get system.timelapseminutes"));
}

TEST_F(SettingsTest, TimelapseMissingFromTheStoreFails) {
  info_["sysid"] = kTimelapseModel;
  platform().config.values.erase("system.timelapseminutes");
  EXPECT_FALSE(update({}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to get system.timelapseminutes")));
  EXPECT_EQ(reply_.Find("timelapseminutes"), nullptr);
  expectNotClosed();
}

TEST_F(SettingsTest, TimelapseThatCannotBeStoredFails) {
  info_["sysid"] = kTimelapseModel;
  platform().config.failingSet = "system.timelapseminutes";
  EXPECT_FALSE(update({{"timelapseminutes", 9}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to set system.timelapseminutes to 1")));
  EXPECT_EQ(reply_.Find("timelapseminutes"), nullptr);
  expectNotClosed();
}

TEST_F(SettingsTest, DescriptionWithoutAModelEndsTheProcess) {
  info_ = variant::CameraInfo();
  info_["name"] = "Kova";
  EXPECT_THROW(update({}), fakes::ForcedCrash);
  EXPECT_TRUE(platform().logged(LOG_ERR, "Key \"sysid\" not available"));
}

// Writing the store back.

class ChangeFlagTest : public SettingsTest, public testing::WithParamInterface<Variant::Map> {};

TEST_P(ChangeFlagTest, AnyOneChangeIsWrittenBack) {
  info_["sysid"] = kTimelapseModel;
  platform().config.values["system.timelapseminutes"] = "0";
  EXPECT_TRUE(update(GetParam()));
  EXPECT_THAT(platform().journal, Contains("close true false"));
}

INSTANTIATE_TEST_SUITE_P(Changes, ChangeFlagTest,
                         testing::Values(Variant::Map{{"name", "Yard"}},
                                         Variant::Map{{"timezone", "UTC"}},
                                         Variant::Map{{"region", "Asia"}},
                                         Variant::Map{{"timelapseminutes", 1}},
                                         Variant::Map{{"name", "Yard"},
                                                      {"timezone", "GMT"},
                                                      {"region", "US"},
                                                      {"timelapseminutes", 0}}));

TEST_F(SettingsTest, StoreThatCannotBeClosedFailsBeforeTheBootSound) {
  platform().config.closeResult = false;
  EXPECT_FALSE(update({{"region", "Asia"}, {"soundOnBoot", true}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to close system.cfg manager")));
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_EQ(reply_["region"], Variant("Asia"));
  EXPECT_EQ(reply_.Find("soundOnBoot"), nullptr);
}

// The boot sound.

TEST_F(SettingsTest, BootSoundIsSetInTheBootEnvironment) {
  EXPECT_TRUE(update({{"soundOnBoot", true}}));
  EXPECT_EQ(reply_["soundOnBoot"], Variant(true));
  EXPECT_TRUE(update({{"soundOnBoot", false}}));
  EXPECT_EQ(reply_["soundOnBoot"], Variant(false));
  EXPECT_THAT(platform().commands, ElementsAre("/usr/bin/fw_setenv kova_audioplay 1",
                                               "/usr/bin/fw_setenv kova_audioplay 0"));
}

TEST_F(SettingsTest, BootSoundOfAnotherTypeIsIgnored) {
  EXPECT_TRUE(update({{"soundOnBoot", "true"}}));
  EXPECT_TRUE(update({{"soundOnBoot", 1}}));
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_EQ(reply_.Find("soundOnBoot"), nullptr);
}

TEST_F(SettingsTest, FailingBootEnvironmentFailsWithTheOtherChangesWritten) {
  platform().onRun = [](const std::string&) { return fakes::ProcessResult{3, "", ""}; };
  EXPECT_FALSE(update({{"region", "Asia"}, {"soundOnBoot", true}}));
  EXPECT_FALSE(update({{"soundOnBoot", false}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to set soundOnBoot to true"),
                                          error("Failed to set soundOnBoot to false")));
  EXPECT_EQ(stored("system.region"), "Asia");
  EXPECT_EQ(reply_.Find("soundOnBoot"), nullptr);
}

}  // namespace
}  // namespace kova::ctlserver
