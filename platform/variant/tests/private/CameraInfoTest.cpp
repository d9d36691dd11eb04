#include "kova/variant/CameraInfo.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "../../../../tests/PrivateRoot.h"
#include "../../../utils/tests/TemporaryFolder.h"

namespace kova::variant {
namespace {

constexpr char kLogIdentity[] = "test";
constexpr char kLogUnit[] = "CameraInfoTest";

constexpr char kDescription[] = "/usr/share/kova/camera_info.json";

class CameraInfoTest : public testing::Test {
 protected:
  void SetUp() override {
    tests::requirePrivateRoot();
    std::filesystem::remove_all(kDescription);
  }

  static bool init(CameraInfo& info, const std::string& description) {
    tests::writeText(kDescription, description);
    return info.Init();
  }

  CameraInfo info_;
  const logger::Origin here_ = KOVA_LOG_ORIGIN("reader");
};

TEST_F(CameraInfoTest, ReadsDescriptionOfDevice) {
  ASSERT_TRUE(init(info_, R"({"name": "Camera", "sysid": 42278, "feature_wifi": 1,
                             "feature_battery": 0, "reset_button_gpio": "/gpio"})"));
  EXPECT_EQ(info_.name(here_), "Camera");
  EXPECT_EQ(info_.sysid(here_), 0xa526U);
  EXPECT_EQ(info_.featureWifi(here_), 1);
  EXPECT_EQ(info_.featureBattery(here_), 0);
  EXPECT_EQ(*info_.find("reset_button_gpio"), Variant("/gpio"));
}

TEST_F(CameraInfoTest, OptionalValuesAreText) {
  EXPECT_EQ(info_.optionalText("name"), std::nullopt) << "not a map yet";
  ASSERT_TRUE(init(info_, R"({"name": "Camera", "sysid": 42278})"));
  EXPECT_EQ(info_.optionalText("name"), "Camera");
  EXPECT_EQ(info_.optionalText("sysid"), "42278");
  EXPECT_EQ(info_.optionalText("upload_owner"), std::nullopt);
}

TEST_F(CameraInfoTest, MissingDescriptionFails) {
  EXPECT_FALSE(info_.Init());
}

TEST_F(CameraInfoTest, NonObjectFails) {
  for (const char* text : {"", "[]", "\"name\"", "7", "{\"name\": }", "{} {}"}) {
    EXPECT_FALSE(init(info_, text)) << text;
  }
}

TEST_F(CameraInfoTest, FailureKeepsEarlierContent) {
  ASSERT_TRUE(init(info_, R"({"sysid": 1})"));
  EXPECT_FALSE(init(info_, "{"));
  EXPECT_EQ(info_.sysid(here_), 1U);
}

TEST_F(CameraInfoTest, MissingOrMistypedKeyEndsProcess) {
  EXPECT_EXIT(info_.sysid(here_), testing::KilledBySignal(SIGABRT), "") << "not a map";
  ASSERT_TRUE(init(info_, R"({"name": 1, "sysid": "1", "feature_wifi": true})"));
  EXPECT_EXIT(info_.name(here_), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(info_.sysid(here_), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(info_.featureWifi(here_), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(info_.featureBattery(here_), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(CameraInfoTest, NonIntegerModelEndsProcess) {
  ASSERT_TRUE(init(info_, R"({"sysid": 42278.5, "feature_wifi": 1.5})"));
  EXPECT_EXIT(info_.sysid(here_), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EQ(info_.featureWifi(here_), 1) << "a feature may be any number";
}

}  // namespace
}  // namespace kova::variant
