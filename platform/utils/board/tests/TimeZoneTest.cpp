#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "TemporaryFolder.h"
#include "TimeZoneInternal.h"

namespace kova::utils {
namespace {

using tests::readText;
using tests::TemporaryFolder;
using tests::writeText;

const std::string kHeader("TZif2\0\0\0binary\nbody", 18);

std::string zoneFile(const std::string& rule) {
  return kHeader + "\n" + rule + "\n";
}

TEST(PosixRule, IsLastLine) {
  EXPECT_EQ("CET-1CEST,M3.5.0,M10.5.0/3", posixRule(zoneFile("CET-1CEST,M3.5.0,M10.5.0/3")));
  EXPECT_EQ("<+03>-3", posixRule(zoneFile("<+03>-3")));
  EXPECT_EQ("!~", posixRule(zoneFile("!~"))) << "every graphic character";
  EXPECT_EQ("", posixRule(zoneFile("GMT0\x7f")));
}

TEST(PosixRule, IsEmptyWithoutZoneOrRule) {
  EXPECT_EQ("", posixRule(""));
  EXPECT_EQ("", posixRule("TZif"));
  EXPECT_EQ("", posixRule("TZif2"));
  EXPECT_EQ("", posixRule("TZif2\n"));
  EXPECT_EQ("", posixRule("text2\nGMT0\n"));
  EXPECT_EQ("", posixRule(zoneFile("")));
  EXPECT_EQ("", posixRule(zoneFile("GMT0") + "x"));
  EXPECT_EQ("", posixRule(zoneFile("GMT 0")));
  std::string firstVersion = zoneFile("GMT0");
  firstVersion[4] = '\0';
  EXPECT_EQ("", posixRule(firstVersion));
}

class WriteTimeZoneTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(folders_.zoneinfo + "/Europe");
    std::filesystem::create_directories(folders_.etc);
    writeText(folders_.zoneinfo + "/Europe/Paris", zoneFile("CET-1CEST,M3.5.0,M10.5.0/3"));
    writeText(folders_.zoneinfo + "/UTC", zoneFile("UTC0"));
  }

  bool write(const std::string& zone) const { return writeTimeZone(zone, folders_); }

  std::string localtime() const {
    std::error_code error;
    return std::filesystem::read_symlink(folders_.etc + "/localtime", error);
  }
  std::string tz() const { return readText(folders_.etc + "/TZ"); }

  std::vector<std::string> etcNames() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folders_.etc)) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  /// Expects that Europe/Paris, set before, is still in effect and that no temporary files remain.
  void expectParis() const {
    EXPECT_EQ(folders_.zoneinfo + "/Europe/Paris", localtime());
    EXPECT_EQ("CET-1CEST,M3.5.0,M10.5.0/3\n", tz());
    EXPECT_THAT(etcNames(), testing::UnorderedElementsAre("TZ", "localtime"));
  }

  TemporaryFolder root_;
  ZoneFolders folders_{root_ / "zoneinfo", root_ / "etc"};
};

TEST_F(WriteTimeZoneTest, WritesAndReplacesLinkAndRule) {
  ASSERT_TRUE(write("Europe/Paris"));
  expectParis();
  ASSERT_TRUE(write("UTC"));
  ASSERT_TRUE(write("Europe/Paris"));
  expectParis();
  ASSERT_TRUE(write("Europe/Paris"));
  expectParis();
}

TEST_F(WriteTimeZoneTest, LeftoversOfEarlierProcessAreReplaced) {
  ASSERT_TRUE(write("UTC"));
  for (const char* name : {"/localtime.new.", "/localtime.old."}) {
    writeText(folders_.etc + name + std::to_string(getpid()), "left");
  }
  ASSERT_TRUE(write("Europe/Paris"));
  expectParis();
  const std::string folder = folders_.etc + "/localtime.new." + std::to_string(getpid());
  std::filesystem::create_directory(folder);
  EXPECT_FALSE(write("UTC")) << "a folder cannot be replaced";
  std::filesystem::remove(folder);
  expectParis();
}

TEST_F(WriteTimeZoneTest, ReplacesCopiedZoneFile) {
  writeText(folders_.etc + "/localtime", "a copy");
  ASSERT_TRUE(write("Europe/Paris"));
  expectParis();
}

TEST_F(WriteTimeZoneTest, InvalidZoneNameChangesNothing) {
  ASSERT_TRUE(write("Europe/Paris"));
  writeText(root_ / "outside", zoneFile("UTC0"));
  for (const std::string& zone :
       {std::string(), std::string("Europe"), std::string("Europe/"), std::string("/UTC"),
        std::string("../outside"), std::string("Europe/../UTC"), root_ / "outside",
        std::string("Europe/Rome"), std::string("UTC\0", 4), std::string("UTC\n"),
        std::string("U TC"), std::string("."), std::string(5000, 'a'), std::string("Europe//")}) {
    EXPECT_FALSE(write(zone)) << zone;
  }
  expectParis();
}

TEST_F(WriteTimeZoneTest, RefusesFileThatIsNotZone) {
  ASSERT_TRUE(write("Europe/Paris"));
  writeText(folders_.zoneinfo + "/README", "text\nGMT0\n");
  writeText(folders_.zoneinfo + "/leap", zoneFile(""));
  ASSERT_EQ(0, mkfifo((folders_.zoneinfo + "/pipe").c_str(), 0600));
  EXPECT_FALSE(write("README"));
  EXPECT_FALSE(write("leap"));
  EXPECT_FALSE(write("pipe"));
  expectParis();
}

TEST_F(WriteTimeZoneTest, FollowsLinksOnlyInsideFolder) {
  writeText(root_ / "outside", zoneFile("UTC0"));
  std::filesystem::create_symlink("Europe/Paris", folders_.zoneinfo + "/France");
  std::filesystem::create_symlink("../outside", folders_.zoneinfo + "/Out");
  std::filesystem::create_symlink("Loop", folders_.zoneinfo + "/Loop");
  std::filesystem::create_symlink(folders_.etc + "/localtime", folders_.zoneinfo + "/localtime");
  ASSERT_TRUE(write("Europe/Paris"));
  EXPECT_FALSE(write("Out"));
  EXPECT_FALSE(write("localtime"));
  EXPECT_FALSE(write("Loop"));
  expectParis();
  ASSERT_TRUE(write("France"));
  EXPECT_EQ(folders_.zoneinfo + "/France", localtime());
}

TEST_F(WriteTimeZoneTest, KnowsGmtAndUtcWithoutZoneFiles) {
  std::filesystem::remove_all(folders_.zoneinfo);
  ASSERT_TRUE(write("GMT"));
  EXPECT_EQ("GMT0\n", tz());
  EXPECT_EQ(folders_.zoneinfo + "/GMT", localtime());
  ASSERT_TRUE(write("UTC"));
  EXPECT_EQ("UTC0\n", tz());
  EXPECT_FALSE(write("Europe/Paris"));
}

TEST_F(WriteTimeZoneTest, LeavesLinkIfRuleCannotBeStored) {
  ASSERT_TRUE(write("Europe/Paris"));
  std::filesystem::remove(folders_.etc + "/TZ");
  std::filesystem::create_directory(folders_.etc + "/TZ");
  EXPECT_FALSE(write("UTC"));
  EXPECT_EQ(folders_.zoneinfo + "/Europe/Paris", localtime());
  EXPECT_THAT(etcNames(), testing::UnorderedElementsAre("TZ", "localtime"));
}

TEST_F(WriteTimeZoneTest, LeavesRuleIfLinkCannotBeSet) {
  ASSERT_TRUE(write("Europe/Paris"));
  std::filesystem::remove(folders_.etc + "/localtime");
  std::filesystem::create_directory(folders_.etc + "/localtime");
  EXPECT_FALSE(write("UTC"));
  EXPECT_EQ("CET-1CEST,M3.5.0,M10.5.0/3\n", tz());
  EXPECT_THAT(etcNames(), testing::UnorderedElementsAre("TZ", "localtime"));
}

TEST_F(WriteTimeZoneTest, FailsWithoutTargetFolder) {
  std::filesystem::remove_all(folders_.etc);
  EXPECT_FALSE(write("UTC"));
}

}  // namespace
}  // namespace kova::utils
