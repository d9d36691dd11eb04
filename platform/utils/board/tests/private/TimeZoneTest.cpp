#include "kova/utils/TimeZone.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "SyslogRecorder.h"
#include "TemporaryFolder.h"

namespace kova::utils {
namespace {

using tests::readText;

constexpr time_t kSummer2024 = 1720000000;  // 3 July 2024, 09:46:40 UTC

std::string clockAt(time_t time) {
  tm local{};
  localtime_r(&time, &local);
  char text[32] = {};
  strftime(text, sizeof text, "%H:%M %Z", &local);
  return text;
}

std::filesystem::path localtimeTarget() {
  return std::filesystem::read_symlink("/etc/localtime");
}

TEST(SetTimeZone, ChangesSystemAndThisProcess) {
  ASSERT_TRUE(setTimeZone("Europe/Paris"));
  EXPECT_EQ("/usr/share/zoneinfo/Europe/Paris", localtimeTarget());
  EXPECT_EQ("CET-1CEST,M3.5.0,M10.5.0/3\n", readText("/etc/TZ"));
  EXPECT_EQ("11:46 CEST", clockAt(kSummer2024));

  ASSERT_TRUE(setTimeZone("America/New_York"));
  EXPECT_EQ("05:46 EDT", clockAt(kSummer2024));
  ASSERT_TRUE(setTimeZone("GMT"));
  EXPECT_EQ("GMT0\n", readText("/etc/TZ"));
  EXPECT_EQ("09:46 GMT", clockAt(kSummer2024));
}

TEST(SetTimeZone, OverridesZoneFromEnvironment) {
  setenv("TZ", "Asia/Tokyo", 1);
  tzset();
  ASSERT_EQ("18:46 JST", clockAt(kSummer2024));
  ASSERT_TRUE(setTimeZone("Europe/Paris"));
  EXPECT_EQ("11:46 CEST", clockAt(kSummer2024));
}

TEST(SetTimeZone, FailureChangesNeitherSystemNorThisProcess) {
  ASSERT_TRUE(setTimeZone("Europe/Paris"));
  for (const char* zone : {"Europe/Nowhere", "../../../etc/passwd", "localtime", "zone.tab", ""}) {
    EXPECT_FALSE(setTimeZone(zone)) << zone;
  }
  ASSERT_EQ(0, chmod("/etc", 0555));
  EXPECT_FALSE(setTimeZone("GMT"));
  ASSERT_EQ(0, chmod("/etc", 0755));
  EXPECT_EQ("/usr/share/zoneinfo/Europe/Paris", localtimeTarget());
  EXPECT_EQ("CET-1CEST,M3.5.0,M10.5.0/3\n", readText("/etc/TZ"));
  EXPECT_EQ("11:46 CEST", clockAt(kSummer2024));
}

TEST(SetTimeZone, RestoresLinkIfRuleCannotBeReplaced) {
  ASSERT_TRUE(setTimeZone("Europe/Paris"));
  // rename(2) cannot replace a mount point.
  ASSERT_EQ(0, mount("/etc/TZ", "/etc/TZ", nullptr, MS_BIND, nullptr));
  tests::records.clear();
  EXPECT_FALSE(setTimeZone("GMT"));
  EXPECT_EQ("/usr/share/zoneinfo/Europe/Paris", localtimeTarget());
  std::filesystem::remove("/etc/localtime");
  EXPECT_FALSE(setTimeZone("GMT"));
  EXPECT_FALSE(std::filesystem::is_symlink("/etc/localtime"));
  ASSERT_EQ(0, umount("/etc/TZ"));
  EXPECT_EQ("CET-1CEST,M3.5.0,M10.5.0/3\n", readText("/etc/TZ"));
  ASSERT_EQ(2U, tests::records.size()) << "one line per failed call, none about a restore";
  EXPECT_NE(std::string::npos, tests::records[1].text.find("Cannot set the time zone GMT"));
}

TEST(SetTimeZone, EveryInstalledRegionalZoneCanBeSet) {
  int zones = 0;
  for (const char* region : {"Africa", "America", "Asia", "Europe", "Pacific"}) {
    const std::filesystem::path root = "/usr/share/zoneinfo";
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root / region)) {
      if (entry.is_directory()) continue;
      const std::string zone = entry.path().lexically_relative(root);
      EXPECT_TRUE(setTimeZone(zone)) << zone;
      ++zones;
    }
  }
  EXPECT_GT(zones, 300);
}

}  // namespace
}  // namespace kova::utils
