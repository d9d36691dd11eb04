#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "../../../utils/tests/TemporaryFolder.h"
#include "kova/syscfg/SystemCfgManager.h"

namespace kova::syscfg {
namespace {

using tests::readText;
using tests::writeText;

constexpr char kStorePath[] = "/etc/system.cfg";
constexpr char kOld[] = "name=old\nzone=GMT\n";
constexpr char kNew[] = "name=new\nzone=GMT\n";

// Mounts a small file system at /etc.
class SmallEtc : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mount("tmpfs", "/etc", "tmpfs", 0, "size=32k,mode=0755"), 0) << std::strerror(errno);
    writeText(kStorePath, kOld);
  }
  void TearDown() override { umount2("/etc", MNT_DETACH); }

  static void fill() {
    std::ofstream file("/etc/filler", std::ios::binary);
    while (file << 'x' << std::flush) {
    }
  }

  static bool change() {
    SystemCfgManager manager;
    return manager.init() && manager.set("name", "new", nullptr) && manager.close(true, false);
  }
};

TEST_F(SmallEtc, FullDiskLeavesStoreUnchanged) {
  fill();
  EXPECT_FALSE(change());
  EXPECT_EQ(readText(kStorePath), kOld);
  EXPECT_EQ(tests::entriesOf("/etc"), 2);
  std::filesystem::remove("/etc/filler");
  EXPECT_TRUE(change());
  EXPECT_EQ(readText(kStorePath), kNew);
}

TEST_F(SmallEtc, ReadOnlyDiskLeavesStoreUnchanged) {
  ASSERT_EQ(mount("tmpfs", "/etc", nullptr, MS_REMOUNT | MS_RDONLY, "size=32k"), 0)
      << std::strerror(errno);
  EXPECT_FALSE(change());
  EXPECT_EQ(readText(kStorePath), kOld);
  EXPECT_EQ(tests::entriesOf("/etc"), 1);
}

}  // namespace
}  // namespace kova::syscfg
