#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <set>

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
    mounted_ = true;
    writeText(kStorePath, kOld);
  }
  void TearDown() override {
    if (mounted_) {
      ASSERT_EQ(umount2("/etc", MNT_DETACH), 0) << std::strerror(errno);
    }
  }

  static void fill() {
    std::ofstream file("/etc/filler", std::ios::binary);
    while (file << 'x' << std::flush) {
    }
  }

  static long entries() { return std::distance(std::filesystem::directory_iterator("/etc"), {}); }

  static bool change() {
    SystemCfgManager manager;
    return manager.init() && manager.set("name", "new", nullptr) && manager.close(true, false);
  }

 private:
  bool mounted_ = false;
};

TEST_F(SmallEtc, FullDiskLeavesStoreUnchanged) {
  fill();
  EXPECT_FALSE(change());
  EXPECT_EQ(readText(kStorePath), kOld);
  EXPECT_EQ(entries(), 2);
  std::filesystem::remove("/etc/filler");
  EXPECT_TRUE(change());
  EXPECT_EQ(readText(kStorePath), kNew);
}

TEST_F(SmallEtc, ReadOnlyDiskLeavesStoreUnchanged) {
  ASSERT_EQ(mount("tmpfs", "/etc", nullptr, MS_REMOUNT | MS_RDONLY, "size=32k"), 0)
      << std::strerror(errno);
  EXPECT_FALSE(change());
  EXPECT_EQ(readText(kStorePath), kOld);
  EXPECT_EQ(entries(), 1);
}

// Runs change() in a child that is killed at the given stop, before or after a system call.
// @return whether it reached that stop
bool changeKilledAt(int stop, bool (*change)()) {
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    _exit(change() ? 0 : 1);
  }
  int status = 0;
  for (int at = 0; waitpid(child, &status, 0) == child && WIFSTOPPED(status); ++at) {
    if (at == stop) {
      kill(child, SIGKILL);
    } else {
      ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    }
  }
  EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << status;
  return WIFSIGNALED(status);
}

TEST_F(SmallEtc, KillAtAnySystemCallLeavesOldOrNewStore) {
  std::set<std::string> seen;
  int stop = 0;
  for (; changeKilledAt(stop, &change); ++stop) {
    const std::string content = readText(kStorePath);
    EXPECT_TRUE(content == kOld || content == kNew) << "stop " << stop << ": " << content;
    seen.insert(content);
    for (const auto& entry : std::filesystem::directory_iterator("/etc")) {
      if (entry.path() != kStorePath) {
        std::filesystem::remove(entry);
      }
    }
    writeText(kStorePath, kOld);
  }
  EXPECT_EQ(seen.size(), 2U);
  EXPECT_GT(stop, 20);
  EXPECT_EQ(readText(kStorePath), kNew);
}

}  // namespace
}  // namespace kova::syscfg
