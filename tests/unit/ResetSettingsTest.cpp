#include <syslog.h>

#include "CtlServer.h"
#include "UnitTest.h"

namespace kova::ctlserver {
namespace {

class ResetSettingsTest : public testing::Test {
 protected:
  void SetUp() override {
    fakes::reset();
    platform().config.values = {{"resolv.host.1.name", "Front door"},
                                {"system.timezone", "UTC"},
                                {"system.region", "Asia"},
                                {"system.timelapseminutes", "1"}};
    info_["sysid"] = std::uint32_t{42321};
    info_["name"] = "Kova Camera";
  }

  variant::CameraInfo info_;
  CtlServer server_{info_};
  Variant reply_;
};

TEST_F(ResetSettingsTest, RestoresDefaultNameAndGmt) {
  EXPECT_TRUE(server_.resetSettings(reply_));
  EXPECT_EQ(reply_, Variant(Map{{"name", "Kova Camera"},
                                {"timezone", "GMT"},
                                {"region", "Asia"},
                                {"timelapseminutes", 1}}));
  EXPECT_EQ(platform().config.values,
            (std::map<std::string, std::string>{{"resolv.host.1.name", "Kova Camera"},
                                                {"system.timezone", "GMT"},
                                                {"system.region", "Asia"},
                                                {"system.timelapseminutes", "1"}}));
  EXPECT_THAT(platform().journal, Contains("setTimeZone GMT"));
}

TEST_F(ResetSettingsTest, NeitherSavesToFlashNorReboots) {
  ASSERT_TRUE(server_.init(nullptr));
  EXPECT_TRUE(server_.resetSettings(reply_));
  platform().nowMs += 60'000;
  server_.service(0);
  EXPECT_THAT(platform().commands, ElementsAre("/bin/kova_cmd_apply_camera_name.sh"));
}

TEST_F(ResetSettingsTest, FailedUpdateIsReturnedWithItsReply) {
  platform().config.failingSet = "system.timezone";
  EXPECT_FALSE(server_.resetSettings(reply_));
  EXPECT_EQ(reply_, Variant(Map{{"name", "Kova Camera"}}));
}

TEST_F(ResetSettingsTest, DescriptionWithoutNameEndsProcess) {
  const auto expectCrash = [&](const std::string& text) {
    platform().log.clear();
    EXPECT_THROW(server_.resetSettings(reply_), fakes::ForcedCrash);
    EXPECT_THAT(platform().log,
                ElementsAre(LogLine{"CtlServer", "resetSettings", LOG_ERR, 0, text}));
    EXPECT_THAT(platform().journal, Not(Contains(StartsWith("SystemCfgManager"))));
  };
  info_ = variant::CameraInfo();
  expectCrash("Invalid variant type detected");
  info_["sysid"] = std::uint32_t{42321};
  expectCrash("Key \"name\" not available");
  info_["name"] = 7;
  expectCrash("Key \"name\" has a different type than expected");
}

}  // namespace
}  // namespace kova::ctlserver
