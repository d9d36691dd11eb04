#include "SettingsFixture.h"

namespace kova::ctlserver {
namespace {

TEST_F(SettingsTest, AbsentRegionReadsAsEmpty) {
  platform().config.values.erase("system.region");
  EXPECT_TRUE(update({}));
  EXPECT_EQ(reply_["region"], Variant(""));
}

TEST_F(SettingsTest, UnstorableRegionFailsBeforeParsing) {
  platform().config.failingSet = "system.region";
  expectFailure({{"region", "Europe/Paris"}}, "Failed to set system.region to Europe/Paris");
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("setTimeZone"))));
  EXPECT_EQ(reply_.find("region"), nullptr);
}

TEST_F(SettingsTest, OlsonRegionSetsSystemTimeZoneButNotStoredOne) {
  EXPECT_TRUE(update({{"region", "Europe/Paris"}}));
  EXPECT_THAT(platform().journal, Contains("setTimeZone Europe/Paris"));
  EXPECT_THAT(platform().log, ElementsAre(LogLine{"CtlServer", "updateSettings", LOG_INFO, 0,
                                                  "Found Olson format: Europe/Paris"}));
  EXPECT_EQ(stored("system.region"), "Europe/Paris");
  EXPECT_EQ(stored("system.timezone"), "GMT");
  EXPECT_EQ(reply_["timezone"], Variant("GMT"));
  EXPECT_EQ(reply_["region"], Variant("Europe/Paris"));
}

TEST_F(SettingsTest, RegionAloneDecidesTimeZone) {
  EXPECT_TRUE(update({{"timezone", "Europe/Paris"}, {"region", "US"}}));
  EXPECT_THAT(platform().log, IsEmpty());
  EXPECT_EQ(
      std::count(platform().journal.begin(), platform().journal.end(), "setTimeZone Europe/Paris"),
      1);
}

TEST_F(SettingsTest, OlsonRegionRefusedBySystemWritesNothing) {
  platform().setTimeZoneResult = false;
  EXPECT_FALSE(update({{"region", "Area/Nowhere"}}));
  EXPECT_THAT(platform().log, Contains(error("Failed to write timezone")));
  EXPECT_THAT(platform().journal, Not(Contains(StartsWith("close"))));
  EXPECT_EQ(reply_.find("region"), nullptr);
  EXPECT_EQ(stored("system.region"), "US");
}

struct RegionCase {
  std::string region;
  bool olson;
};

class RegionFormatTest : public SettingsTest, public testing::WithParamInterface<RegionCase> {};

TEST_P(RegionFormatTest, OnlyAreaSlashCityIsTimeZone) {
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

}  // namespace
}  // namespace kova::ctlserver
