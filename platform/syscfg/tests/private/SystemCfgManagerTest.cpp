#include "kova/syscfg/SystemCfgManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "../../../utils/tests/TemporaryFolder.h"

namespace kova::syscfg {
namespace {

using namespace std::string_literals;
using tests::readText;
using tests::writeText;

constexpr char kStore[] = "/etc/system.cfg";
constexpr std::size_t kMaxStore = std::size_t{1024} * 1024;

class SystemCfgManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(kStore);
    writeText(kStore, kContent);
  }

  static bool change(const std::string& key, const std::string& value) {
    SystemCfgManager manager;
    return manager.init() && manager.set(key, value, nullptr) && manager.close(true, false);
  }

  // The value read by a new manager; "(absent)" if the key is missing.
  static std::string stored(const std::string& key) {
    SystemCfgManager manager;
    std::string value;
    bool absent = false;
    if (!manager.init() || !manager.get(key, &value, &absent)) {
      return "(failed)";
    }
    return absent ? "(absent)" : value;
  }

  static constexpr char kContent[] = "# comment\nname=Camera\n\nzone=GMT\nodd line\n";
  SystemCfgManager manager_;
};

TEST_F(SystemCfgManagerTest, KeysAreComparedExactly) {
  for (const char* key : {"Name", "nam", "name ", "", "odd line", "# comment", "name=Camera"}) {
    EXPECT_EQ(stored(key), "(absent)") << key;
  }
}

TEST_F(SystemCfgManagerTest, ChangeKeepsOtherLines) {
  ASSERT_TRUE(manager_.init());
  EXPECT_TRUE(manager_.set("name", "a=b # c", nullptr));
  EXPECT_TRUE(manager_.set("added", 42, nullptr));
  EXPECT_EQ(readText(kStore), kContent);
  EXPECT_TRUE(manager_.close(true, false));
  EXPECT_EQ(readText(kStore), "# comment\nname=a=b # c\n\nzone=GMT\nodd line\nadded=42\n");
}

TEST_F(SystemCfgManagerTest, LastOfEqualKeysCounts) {
  writeText(kStore, "a=1\na=2\nb=3\n");
  EXPECT_EQ(stored("a"), "2");
  EXPECT_TRUE(change("a", "4"));
  EXPECT_EQ(readText(kStore), "a=1\na=4\nb=3\n");
  EXPECT_EQ(stored("a"), "4");
}

TEST_F(SystemCfgManagerTest, FileIsReplacedOnlyWhenChangedOrForced) {
  std::filesystem::create_hard_link(kStore, "/etc/before");
  const auto isReplaced = [] { return !std::filesystem::equivalent(kStore, "/etc/before"); };
  ASSERT_TRUE(manager_.init());
  EXPECT_TRUE(manager_.close(false, false));
  EXPECT_FALSE(isReplaced());
  ASSERT_TRUE(manager_.init());
  EXPECT_TRUE(manager_.close(false, true));
  EXPECT_TRUE(isReplaced());
  EXPECT_EQ(readText(kStore), kContent);
  std::filesystem::remove("/etc/before");
}

TEST_F(SystemCfgManagerTest, FileModeIsKept) {
  ASSERT_EQ(chmod(kStore, 0600), 0);
  EXPECT_TRUE(change("name", "new"));
  EXPECT_EQ(tests::modeOf(kStore), 0600U);
}

TEST_F(SystemCfgManagerTest, UnreadableStoreFails) {
  ASSERT_EQ(chmod(kStore, 0), 0);
  EXPECT_FALSE(manager_.init());
  ASSERT_EQ(unlink(kStore), 0);
  EXPECT_FALSE(manager_.init());
  ASSERT_EQ(mkdir(kStore, 0700), 0);
  EXPECT_FALSE(manager_.init());
  ASSERT_EQ(rmdir(kStore), 0);
  ASSERT_EQ(mkfifo(kStore, 0600), 0);
  EXPECT_FALSE(manager_.init());
}

TEST_F(SystemCfgManagerTest, StoreIsReadUpTo1MiB) {
  const std::string line = "key=value\n";
  writeText(kStore, line + std::string(kMaxStore - line.size(), 'x'));
  EXPECT_EQ(stored("key"), "value");
  writeText(kStore, line + std::string(kMaxStore - line.size() + 1, 'x'));
  EXPECT_FALSE(manager_.init());
}

TEST_F(SystemCfgManagerTest, StoreDoesNotGrowBeyondReadLimit) {
  ASSERT_TRUE(manager_.init());
  const std::size_t room = kMaxStore - sizeof kContent + 1 - sizeof "big=";
  EXPECT_FALSE(manager_.set("big", std::string(room + 1, 'x'), nullptr));
  EXPECT_TRUE(manager_.set("big", std::string(room, 'x'), nullptr));
  EXPECT_FALSE(manager_.set("name", "Camera2", nullptr));
  EXPECT_TRUE(manager_.set("name", "Came", nullptr));
  EXPECT_TRUE(manager_.set("name", "Camera", nullptr));
  EXPECT_TRUE(manager_.close(true, false));
  EXPECT_EQ(std::filesystem::file_size(kStore), kMaxStore);
  EXPECT_EQ(stored("big").size(), room);
}

TEST_F(SystemCfgManagerTest, FullStoreWithoutFinalLineBreakIsNotReplaced) {
  writeText(kStore, "a=" + std::string(kMaxStore - 2, 'x'));
  ASSERT_TRUE(manager_.init());
  EXPECT_FALSE(manager_.close(false, true));
  EXPECT_EQ(std::filesystem::file_size(kStore), kMaxStore);
}

TEST_F(SystemCfgManagerTest, GarbageIsKeptByteForByte) {
  std::string garbage;
  for (unsigned i = 0; i < 100000; ++i) {
    garbage.push_back(static_cast<char>(i * i / 7));
  }
  garbage.push_back('\n');
  writeText(kStore, garbage);
  EXPECT_TRUE(change("name", "Camera"));
  EXPECT_EQ(readText(kStore), garbage + "name=Camera\n");
}

}  // namespace
}  // namespace kova::syscfg
