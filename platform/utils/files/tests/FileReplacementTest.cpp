#include "../src/FileReplacement.h"

#include <gtest/gtest.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <string>
#include <tuple>

#include "FileSizeLimit.h"
#include "TemporaryFolder.h"
#include "kova/utils/File.h"

namespace {

/// Results of the next calls of fsync(): an errno value, or 0 for success.
std::deque<int> syncs;
/// Results of the next calls of getrandom(); an empty string fails.
std::deque<std::string> randomBytes;

template <typename Value>
Value taken(std::deque<Value>& values) {
  Value value = values.front();
  values.pop_front();
  return value;
}

}  // namespace

extern "C" {
int fsync(int fd) {
  errno = syncs.empty() ? 0 : taken(syncs);
  return errno == 0 ? static_cast<int>(syscall(SYS_fsync, fd)) : -1;
}

ssize_t getrandom(void* buffer, std::size_t length, unsigned flags) {
  if (randomBytes.empty()) return syscall(SYS_getrandom, buffer, length, flags);
  const std::string bytes = taken(randomBytes);
  std::memcpy(buffer, bytes.data(), bytes.size());
  return bytes.empty() || flags != 0 ? -1 : static_cast<ssize_t>(length);
}
}

namespace kova::utils {
namespace {

using tests::FileSizeLimit;
using tests::modeOf;
using tests::readText;
using tests::TemporaryFolder;
using tests::writeText;

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
  const mode_t saved = umask(026);
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
    GTEST_SKIP() << "only root can change the owner of a file";
  }
  writeText(path_, "old");
  if (chown(path_.c_str(), 1234, 5678) != 0) {
    GTEST_SKIP() << "this user namespace has no other users";
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

TEST_F(AtomicReplacementTest, FailedRenameLeavesNothing) {
  File file;
  ASSERT_TRUE(begin(file) && file.WriteString("new"));
  std::filesystem::create_directory(path_);
  EXPECT_FALSE(file.Close());
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(folder_.entries(), 1);
}

TEST_F(AtomicReplacementTest, FileAndItsFolderAreSynchronized) {
  // EINVAL: a file system may not support the flushing of folders.
  for (const auto& [ofFile, ofFolder, closes] :
       {std::tuple(0, 0, true), std::tuple(0, EINVAL, true), std::tuple(0, EIO, false),
        std::tuple(EIO, 0, false)}) {
    writeText(path_, "old");
    File file;
    ASSERT_TRUE(begin(file) && file.WriteString("new"));
    syncs = {ofFile, ofFolder};
    EXPECT_EQ(file.Close(), closes);
    EXPECT_EQ(syncs.size(), ofFile == 0 ? 0U : 1U);
    EXPECT_EQ(readText(path_), ofFile == 0 ? "new" : "old");
    EXPECT_EQ(folder_.entries(), 1);
    syncs.clear();
  }
}

TEST_F(AtomicReplacementTest, ExistingNameIsSkipped) {
  randomBytes = {std::string(8, 'a'), std::string(8, 'a'), std::string(8, 'b'), ""};
  File files[3];
  EXPECT_TRUE(begin(files[0]));
  EXPECT_TRUE(begin(files[1]));
  EXPECT_EQ(folder_.entries(), 2);
  EXPECT_FALSE(begin(files[2])) << "getrandom() fails";
  EXPECT_TRUE(randomBytes.empty());
}

TEST_F(AtomicReplacementTest, ReplacementNeedsUsablePath) {
  File file;
  std::filesystem::create_symlink("file", path_);
  EXPECT_FALSE(begin(file));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(folder_.entries(), 1);
  const std::string nowhere = folder_ / "missing/file";
  EXPECT_FALSE(file.Initialize(nowhere, FILE_OPEN_MODE_TRUNCATE, FILE_REPLACE_ATOMICALLY));
  EXPECT_EQ(errno, ENOENT);
}

TEST(FolderOf, IsBeforeLastSlash) {
  EXPECT_EQ(internal::folderOf("/a/b"), "/a");
  EXPECT_EQ(internal::folderOf("a/b"), "a");
  EXPECT_EQ(internal::folderOf("/b"), "/");
  EXPECT_EQ(internal::folderOf("b"), ".");
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
