#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "FileSizeLimit.h"
#include "TemporaryFolder.h"
#include "kova/utils/File.h"

namespace kova::utils {
namespace {

using tests::FileSizeLimit;
using tests::readText;
using tests::TemporaryFolder;
using tests::writeText;

mode_t modeOf(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

class AtomicReplacementTest : public testing::Test {
 protected:
  bool begin(File& file) {
    return file.Initialize(path_, FILE_OPEN_MODE_TRUNCATE, FILE_REPLACE_ATOMICALLY);
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_ / "file";
};

TEST_F(AtomicReplacementTest, TargetChangesOnlyAtClose) {
  writeText(path_, "old");
  File file;
  ASSERT_TRUE(begin(file));
  EXPECT_TRUE(file.WriteString("new"));
  EXPECT_EQ(readText(path_), "old");
  EXPECT_TRUE(file.Close());
  EXPECT_EQ(readText(path_), "new");
  EXPECT_EQ(folder_.entries(), 1);
}

TEST_F(AtomicReplacementTest, AbandonedReplacementIsForgotten) {
  File file;
  ASSERT_TRUE(begin(file));
  ASSERT_TRUE(file.Initialize(folder_ / "other", FILE_OPEN_MODE_TRUNCATE, 0));
  EXPECT_TRUE(file.WriteString("plain") && file.Close());
  EXPECT_EQ(readText(folder_ / "other"), "plain");
  EXPECT_EQ(folder_.entries(), 1);
}

TEST_F(AtomicReplacementTest, NewFileHonoursUmask) {
  const mode_t saved = umask(027);
  File file;
  const bool written = begin(file) && file.WriteString("new") && file.Close();
  umask(saved);
  EXPECT_TRUE(written);
  EXPECT_EQ(readText(path_), "new");
  EXPECT_EQ(modeOf(path_), 0640U);
}

TEST_F(AtomicReplacementTest, ModeIsKept) {
  for (const mode_t mode : {0600, 0640, 0666, 0444}) {
    writeText(path_, "old");
    ASSERT_EQ(chmod(path_.c_str(), mode), 0);
    File file;
    ASSERT_TRUE(begin(file) && file.WriteString("new") && file.Close());
    EXPECT_EQ(modeOf(path_), mode);
    ASSERT_EQ(unlink(path_.c_str()), 0);
  }
}

TEST_F(AtomicReplacementTest, OwnerIsKept) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a file away";
  }
  writeText(path_, "old");
  if (chown(path_.c_str(), 1234, 5678) != 0) {
    GTEST_SKIP() << "this root has no other users";
  }
  ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
  File file;
  ASSERT_TRUE(begin(file) && file.WriteString("new") && file.Close());
  struct stat info {};
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_uid, 1234U);
  EXPECT_EQ(info.st_gid, 5678U);
  EXPECT_EQ(modeOf(path_), 0640U);
}

TEST_F(AtomicReplacementTest, TargetIsUnchangedWithoutClose) {
  writeText(path_, "old");
  {
    File file;
    ASSERT_TRUE(begin(file));
    EXPECT_TRUE(file.WriteString("new"));
  }
  EXPECT_EQ(readText(path_), "old");
  EXPECT_EQ(folder_.entries(), 1);
}

TEST_F(AtomicReplacementTest, FailedWriteLeavesTarget) {
  writeText(path_, "old");
  const FileSizeLimit limit(60);
  File file;
  ASSERT_TRUE(begin(file));
  EXPECT_FALSE(file.WriteString(std::string(100, 'x')));
  EXPECT_FALSE(file.Close());
  EXPECT_EQ(readText(path_), "old");
  EXPECT_EQ(folder_.entries(), 1);
}

TEST_F(AtomicReplacementTest, LinkIsReplacedAndItsTargetKept) {
  writeText(folder_ / "elsewhere", "precious");
  ASSERT_EQ(chmod((folder_ / "elsewhere").c_str(), 0600), 0);
  std::filesystem::create_symlink("elsewhere", path_);
  File file;
  ASSERT_TRUE(begin(file) && file.WriteString("new") && file.Close());
  EXPECT_EQ(readText(folder_ / "elsewhere"), "precious");
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path_)));
  EXPECT_EQ(readText(path_), "new");
  EXPECT_EQ(modeOf(path_), 0600U);
}

TEST_F(AtomicReplacementTest, TemporaryNamesDiffer) {
  File one;
  File two;
  ASSERT_TRUE(begin(one));
  ASSERT_TRUE(begin(two));
  EXPECT_EQ(folder_.entries(), 2);
}

TEST_F(AtomicReplacementTest, ReaderSeesOldOrNewContent) {
  const std::string contents[] = {std::string(70000, 'a'), std::string(90000, 'b')};
  writeText(path_, contents[0]);
  const pid_t writer = fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    for (int i = 1; i <= 100; ++i) {
      File file;
      if (!begin(file) || !file.WriteString(contents[i % 2]) || !file.Close()) {
        _exit(1);
      }
    }
    _exit(0);
  }
  int status = 0;
  int seen = 0;
  while (waitpid(writer, &status, WNOHANG) == 0) {
    const std::string content = readText(path_);
    ASSERT_TRUE(content == contents[0] || content == contents[1]) << content.size();
    ++seen;
  }
  EXPECT_EQ(status, 0);
  EXPECT_GT(seen, 0);
}

}  // namespace
}  // namespace kova::utils
