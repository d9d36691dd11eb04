#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "../src/SharedFolder.h"
#include "SyslogRecorder.h"
#include "TemporaryFolder.h"
#include "kova/utils/File.h"

namespace kova::utils {
namespace {

using tests::TemporaryFolder;
using tests::writeText;

/// Tests files in a folder that others may write to, such as /tmp.
class SharedFolderTest : public testing::Test {
 protected:
  SharedFolderTest() {
    records_->clear();
    writeText(path_, "content");
    chmod(folder_.path().c_str(), 01777);
  }
  ~SharedFolderTest() override { trustFilesOf("0"); }

  static bool opens(const std::string& path) {
    errno = 0;
    File file;
    return file.Initialize(path, FILE_OPEN_MODE_READ, 0);
  }
  /// Expects that the file cannot be read and counts as absent, and that the log has the reason.
  void expectRefused(const std::string& path, int error, const std::string& why) {
    records_->clear();
    EXPECT_FALSE(opens(path));
    EXPECT_EQ(errno, error);
    ASSERT_EQ(records_->size(), 1U);
    EXPECT_TRUE(records_->back().text.ends_with(": Refused to open " + path + ": " + why))
        << records_->back().text;
    std::string text = "before";
    EXPECT_FALSE(File::ReadStringAll(path, text));
    EXPECT_EQ(text, "before");
    EXPECT_FALSE(copyFile(path.c_str(), (folder_ / "copy").c_str()));
    EXPECT_FALSE(fileExists((folder_ / "copy").c_str(), false));
    EXPECT_FALSE(fileExists(path.c_str(), true));
    EXPECT_TRUE(fileExists(path.c_str(), false));
  }
  /// Changes the owner of the file, which requires root; returns whether that succeeded.
  bool giveTo(uid_t user) const { return chown(path_.c_str(), user, 0) == 0; }

  TemporaryFolder folder_;
  const std::string path_ = folder_ / "file";
  std::vector<tests::Record>* records_ = &tests::records;
};

TEST_F(SharedFolderTest, OwnFilesAreRead) {
  EXPECT_TRUE(opens(path_));
  EXPECT_TRUE(fileExists(path_.c_str(), true));
  EXPECT_TRUE(fileExists((folder_.path() + "/").c_str(), true));
  EXPECT_FALSE(opens(folder_ / "missing"));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(records_->empty());
}

TEST_F(SharedFolderTest, LinksAreNotRead) {
  std::filesystem::create_symlink("/etc/hostname", folder_ / "link");
  expectRefused(folder_ / "link", ELOOP, "it is a symbolic link");
  std::filesystem::create_symlink("file", folder_ / "second");
  expectRefused(folder_ / "second", ELOOP, "it is a symbolic link");
}

TEST_F(SharedFolderTest, HardLinkedFilesAreNotRead) {
  std::filesystem::create_hard_link(path_, folder_ / "second");
  expectRefused(folder_ / "second", EPERM, "it has a second name");
  expectRefused(path_, EPERM, "it has a second name");
}

TEST_F(SharedFolderTest, PipesAreNotReadAndDoNotBlock) {
  ASSERT_EQ(mkfifo((folder_ / "pipe").c_str(), 0666), 0);
  expectRefused(folder_ / "pipe", EINVAL, "it is no regular file");
}

TEST_F(SharedFolderTest, ForeignFilesAreNotRead) {
  if (!giveTo(65534)) {
    GTEST_SKIP() << "only root can give a file away";
  }
  expectRefused(path_, EPERM, "it belongs to somebody else");
  chmod(folder_.path().c_str(), 0770);
  EXPECT_FALSE(opens(path_));
  chmod(folder_.path().c_str(), 0755);
  EXPECT_TRUE(opens(path_)) << "only the owner may create files here";
}

TEST_F(SharedFolderTest, FilesOfTrustedUserAreOnlyRead) {
  if (!giveTo(65534)) {
    GTEST_SKIP() << "only root can give a file away";
  }
  for (const char* user : {"65534", "nobody"}) {
    EXPECT_TRUE(trustFilesOf(user));
    EXPECT_TRUE(opens(path_)) << user;
    EXPECT_TRUE(fileExists(path_.c_str(), true));
  }
  File file;
  EXPECT_FALSE(file.Initialize(path_, FILE_OPEN_MODE_TRUNCATE, 0));
  EXPECT_EQ(errno, EPERM);
  EXPECT_TRUE(trustFilesOf("65533"));
  EXPECT_FALSE(opens(path_));
}

TEST_F(SharedFolderTest, OnlyOwnFilesWithOneNameAreWritten) {
  constexpr char kForeign[] = "it belongs to somebody else";
  constexpr uid_t kTrusted = 4321;
  EXPECT_TRUE(trustFilesOf("root"));
  EXPECT_TRUE(trustFilesOf(std::to_string(kTrusted)));
  const struct {
    uid_t user;
    const char* reading;
    const char* writing;
  } cases[] = {{geteuid(), nullptr, nullptr},
               {kTrusted, nullptr, kForeign},
               {kTrusted + 1, kForeign, kForeign},
               {1, kForeign, kForeign}};
  struct stat file {};
  for (const auto& [user, reading, writing] : cases) {
    file.st_uid = user;
    file.st_nlink = 1;
    EXPECT_STREQ(internal::objectionTo(file, false), reading) << user;
    EXPECT_STREQ(internal::objectionTo(file, true), writing) << user;
  }
  file.st_uid = kTrusted;
  file.st_nlink = 2;
  EXPECT_STREQ(internal::objectionTo(file, false), "it has a second name");
}

TEST_F(SharedFolderTest, UnknownUserIsReportedAndNobodyTrusted) {
  for (const std::string user : {"nosuchuser", "", "-1", "0x10", "4294967296", "no:body"}) {
    records_->clear();
    EXPECT_FALSE(trustFilesOf(user));
    ASSERT_EQ(records_->size(), 1U);
    EXPECT_TRUE(
        records_->back().text.ends_with(": No user " + user + ", whose files could be trusted"));
  }
  EXPECT_TRUE(opens(path_));
}

}  // namespace
}  // namespace kova::utils
