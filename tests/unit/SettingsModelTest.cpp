#include "SettingsFixture.h"

namespace kova::ctlserver {
namespace {

// The time-lapse.

class TimelapseModelTest : public SettingsTest,
                           public testing::WithParamInterface<std::uint32_t> {};

TEST_P(TimelapseModelTest, ReportsAndStoresSetting) {
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

TEST_P(OtherModelTest, IgnoresGivenSetting) {
  info_["sysid"] = GetParam();
  platform().config.failingGet = platform().config.failingSet = "system.timelapseminutes";
  EXPECT_TRUE(update({}));
  EXPECT_TRUE(update({{"timelapseminutes", 0}}));
  EXPECT_EQ(reply_.find("timelapseminutes"), nullptr);
  EXPECT_THAT(platform().journal, Not(Contains(HasSubstr("system.timelapseminutes"))));
}

INSTANTIATE_TEST_SUITE_P(Models, OtherModelTest,
                         testing::Values(0U, 42320U, 42322U, 42323U, 42325U, 42278U));

TEST_F(SettingsTest, StoredTimelapseOtherThanOneReadsAsOff) {
  info_["sysid"] = kTimelapseModel;
  for (const char* text : {"0", "5", "", "01", "1 ", "11", "true"}) {
    platform().config.values["system.timelapseminutes"] = text;
    EXPECT_TRUE(update({}));
    EXPECT_EQ(reply_["timelapseminutes"], Variant(0)) << text;
  }
}

TEST_F(SettingsTest, TimelapseMissingFromStoreFails) {
  info_["sysid"] = kTimelapseModel;
  platform().config.values.erase("system.timelapseminutes");
  expectFailure({}, "Failed to get system.timelapseminutes");
  EXPECT_EQ(reply_.find("timelapseminutes"), nullptr);
}

TEST_F(SettingsTest, UnstorableTimelapseFails) {
  info_["sysid"] = kTimelapseModel;
  platform().config.failingSet = "system.timelapseminutes";
  expectFailure({{"timelapseminutes", 9}}, "Failed to set system.timelapseminutes to 1");
  EXPECT_EQ(reply_.find("timelapseminutes"), nullptr);
}

TEST_F(SettingsTest, DescriptionWithoutModelEndsProcess) {
  info_ = variant::CameraInfo();
  info_["name"] = "Kova";
  EXPECT_THROW(update({}), fakes::ForcedCrash);
  EXPECT_THAT(platform().log, ElementsAre(error("Key \"sysid\" not available")));
}

// Writing the store back.

class ChangeFlagTest : public SettingsTest, public testing::WithParamInterface<Map> {};

TEST_P(ChangeFlagTest, EachChangeIsWrittenBack) {
  info_["sysid"] = kTimelapseModel;
  platform().config.values["system.timelapseminutes"] = "0";
  EXPECT_TRUE(update(GetParam()));
  EXPECT_THAT(platform().journal, Contains("close true false"));
}

INSTANTIATE_TEST_SUITE_P(Changes, ChangeFlagTest,
                         testing::Values(Map{{"name", "Yard"}}, Map{{"timezone", "UTC"}},
                                         Map{{"region", "Asia"}}, Map{{"timelapseminutes", 1}},
                                         Map{{"name", "Yard"},
                                             {"timezone", "GMT"},
                                             {"region", "US"},
                                             {"timelapseminutes", 0}}));

TEST_F(SettingsTest, UnclosableStoreFailsBeforeBootSound) {
  platform().config.closeResult = false;
  EXPECT_FALSE(update({{"region", "Asia"}, {"soundOnBoot", true}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to close system.cfg manager")));
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_EQ(reply_["region"], Variant("Asia"));
  EXPECT_EQ(reply_.find("soundOnBoot"), nullptr);
}

// The boot sound.

TEST_F(SettingsTest, BootSoundIsSetInBootEnvironment) {
  EXPECT_TRUE(update({{"soundOnBoot", true}}));
  EXPECT_EQ(reply_["soundOnBoot"], Variant(true));
  EXPECT_TRUE(update({{"soundOnBoot", false}}));
  EXPECT_EQ(reply_["soundOnBoot"], Variant(false));
  EXPECT_THAT(platform().commands, ElementsAre("/usr/bin/fw_setenv kova_audioplay 1",
                                               "/usr/bin/fw_setenv kova_audioplay 0"));
}

TEST_F(SettingsTest, MistypedBootSoundIsIgnored) {
  EXPECT_TRUE(update({{"soundOnBoot", "true"}}));
  EXPECT_TRUE(update({{"soundOnBoot", 1}}));
  EXPECT_THAT(platform().commands, IsEmpty());
  EXPECT_EQ(reply_.find("soundOnBoot"), nullptr);
}

TEST_F(SettingsTest, FailingBootEnvironmentFailsWithOtherChangesWritten) {
  platform().onRun = [](const std::string&) { return fakes::ProcessResult{3, "", ""}; };
  EXPECT_FALSE(update({{"region", "Asia"}, {"soundOnBoot", true}}));
  EXPECT_FALSE(update({{"soundOnBoot", false}}));
  EXPECT_THAT(platform().log, ElementsAre(error("Failed to set soundOnBoot to true"),
                                          error("Failed to set soundOnBoot to false")));
  EXPECT_EQ(stored("system.region"), "Asia");
  EXPECT_EQ(reply_.find("soundOnBoot"), nullptr);
}

}  // namespace
}  // namespace kova::ctlserver
