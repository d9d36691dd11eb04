#include "kova/utils/File.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>

#include "FileSizeLimit.h"
#include "TemporaryFolder.h"

namespace kova::utils {
namespace {

using namespace std::string_literals;
using tests::FileSizeLimit;
using tests::readText;
using tests::TemporaryFolder;
using tests::writeText;

std::string patterned(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    text[i] = static_cast<char>(i * 31 + i / 251);
  }
  return text;
}

class FileTest : public testing::Test {
 protected:
  /// The errno value of opening a file; 0 on success.
  static int openingError(const std::string& path, FILE_OPEN_MODE mode, int flags = 0) {
    File file;
    errno = 0;
    return file.Initialize(path, mode, flags) ? 0 : errno;
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_ / "file";
};

TEST_F(FileTest, WrittenContentIsReadBack) {
  const std::string text = patterned(300000);
  File writer;
  ASSERT_TRUE(writer.Initialize(path_, FILE_OPEN_MODE_TRUNCATE, 0));
  errno = EINTR;  // left by an earlier call
  EXPECT_TRUE(writer.WriteString(text.substr(0, 1)) && writer.WriteString(text.substr(1)));
  EXPECT_EQ(writer.Size(), text.size());
  EXPECT_EQ(writer.Cursor(), text.size());
  EXPECT_TRUE(writer.Close());
  EXPECT_EQ(writer.Size(), 0U);

  File reader;
  ASSERT_TRUE(reader.Initialize(path_, FILE_OPEN_MODE_READ, 0));
  EXPECT_EQ(reader.Size(), text.size());
  errno = EINTR;
  std::string first(100, '\0');
  ASSERT_TRUE(reader.ReadBuffer(reinterpret_cast<unsigned char*>(first.data()), first.size()));
  EXPECT_EQ(first, text.substr(0, 100));
  EXPECT_EQ(reader.Cursor(), 100U);
  EXPECT_FALSE(reader.IsEOF());
  std::string rest(text.size() - 100, '\0');
  ASSERT_TRUE(reader.ReadBuffer(reinterpret_cast<unsigned char*>(rest.data()), rest.size()));
  EXPECT_EQ(rest, text.substr(100));
  EXPECT_TRUE(reader.IsEOF());
}

TEST_F(FileTest, ReadingNeedsExistingFile) {
  EXPECT_EQ(openingError(path_, FILE_OPEN_MODE_READ), ENOENT);
  EXPECT_EQ(openingError(path_ + "/deeper", FILE_OPEN_MODE_READ), ENOENT);
  EXPECT_FALSE(std::filesystem::exists(path_));
  std::filesystem::create_symlink("file", path_);
  EXPECT_EQ(openingError(path_, FILE_OPEN_MODE_READ), ELOOP);
}

TEST_F(FileTest, TruncatingReplacesLongerContent) {
  writeText(path_, "a long content");
  File file;
  ASSERT_TRUE(file.Initialize(path_, FILE_OPEN_MODE_TRUNCATE, 0));
  EXPECT_EQ(file.Size(), 0U);
  EXPECT_EQ(readText(path_), "");
  EXPECT_TRUE(file.WriteString("short"));
  EXPECT_TRUE(file.Close());
  EXPECT_EQ(readText(path_), "short");
}

TEST_F(FileTest, AppendingContinuesAtEnd) {
  writeText(path_, "one");
  File file;
  ASSERT_TRUE(file.Initialize(path_, FILE_OPEN_MODE_APPEND, 0));
  EXPECT_EQ(file.Cursor(), 3U);
  EXPECT_TRUE(file.WriteString("two"));
  EXPECT_EQ(file.Size(), 6U);
  EXPECT_TRUE(file.Close());
  EXPECT_EQ(readText(path_), "onetwo");
}

TEST_F(FileTest, SymbolicLinksAreFollowedOnlyForReading) {
  writeText(path_, "content");
  std::filesystem::create_symlink("file", folder_ / "link");
  File file;
  ASSERT_TRUE(file.Initialize(folder_ / "link", FILE_OPEN_MODE_READ, 0));
  EXPECT_EQ(file.Size(), 7U);
  for (const auto mode : {FILE_OPEN_MODE_APPEND, FILE_OPEN_MODE_TRUNCATE}) {
    EXPECT_EQ(openingError(folder_ / "link", mode), ELOOP);
  }
  EXPECT_FALSE(copyFile(path_.c_str(), (folder_ / "link").c_str()));
  EXPECT_EQ(readText(path_), "content");
}

TEST_F(FileTest, HardLinkedFileIsReplacedButNotWrittenInto) {
  writeText(path_, "content");
  const std::string second = folder_ / "second";
  std::filesystem::create_hard_link(path_, second);
  for (const auto mode : {FILE_OPEN_MODE_APPEND, FILE_OPEN_MODE_TRUNCATE}) {
    EXPECT_EQ(openingError(second, mode), EPERM);
  }
  File file;
  ASSERT_TRUE(file.Initialize(second, FILE_OPEN_MODE_TRUNCATE, FILE_REPLACE_ATOMICALLY));
  EXPECT_TRUE(file.WriteString("new") && file.Close());
  EXPECT_EQ(readText(path_), "content");
  EXPECT_EQ(readText(second), "new");
}

TEST_F(FileTest, ForeignFileIsReadButNotWrittenInto) {
  writeText(path_, "content");
  if (chown(path_.c_str(), 65534, 65534) != 0) {
    GTEST_SKIP() << "only root can change the owner of a file";
  }
  EXPECT_EQ(openingError(path_, FILE_OPEN_MODE_READ), 0);
  for (const auto mode : {FILE_OPEN_MODE_APPEND, FILE_OPEN_MODE_TRUNCATE}) {
    EXPECT_EQ(openingError(path_, mode), EPERM);
  }
  EXPECT_EQ(readText(path_), "content");
}

TEST_F(FileTest, NonRegularFileIsRefusedWithoutBlocking) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  const std::array<std::string, 3> paths{folder_.path(), path_, "/dev/null"};
  for (const std::string& path : paths) {
    for (const FILE_OPEN_MODE mode :
         {FILE_OPEN_MODE_READ, FILE_OPEN_MODE_APPEND, FILE_OPEN_MODE_TRUNCATE}) {
      File file;
      EXPECT_FALSE(file.Initialize(path, mode, 0)) << path << " mode " << mode;
      EXPECT_EQ(errno, EINVAL) << path << " mode " << mode;
      EXPECT_FALSE(file.Close()) << "not open";
    }
    EXPECT_EQ(openingError(path, FILE_OPEN_MODE_TRUNCATE, FILE_REPLACE_ATOMICALLY), EINVAL) << path;
  }
}

TEST_F(FileTest, UnknownModesFlagsAndPathsWithNulAreRefused) {
  EXPECT_EQ(openingError(path_, static_cast<FILE_OPEN_MODE>(3)), EINVAL);
  EXPECT_EQ(openingError(path_, FILE_OPEN_MODE_APPEND, FILE_REPLACE_ATOMICALLY), EINVAL);
  EXPECT_EQ(openingError(path_, FILE_OPEN_MODE_TRUNCATE, 2), EINVAL);
  EXPECT_EQ(openingError(path_ + "\0x"s, FILE_OPEN_MODE_TRUNCATE), EINVAL);
  EXPECT_NE(openingError("", FILE_OPEN_MODE_TRUNCATE), 0);
  EXPECT_EQ(folder_.entries(), 0);
}

TEST_F(FileTest, ShrinkingDuringReadIsInputError) {
  writeText(path_, "0123456789");
  File file;
  ASSERT_TRUE(file.Initialize(path_, FILE_OPEN_MODE_READ, 0));
  std::filesystem::resize_file(path_, 4);
  std::array<unsigned char, 10> buffer;
  EXPECT_FALSE(file.ReadBuffer(buffer.data(), buffer.size()));
  EXPECT_EQ(errno, EIO);
  EXPECT_FALSE(file.IsEOF());
}

TEST_F(FileTest, FailedReadIsReported) {
  File file;
  ASSERT_TRUE(file.Initialize(path_, FILE_OPEN_MODE_TRUNCATE, 0));
  unsigned char byte = 0;
  EXPECT_FALSE(file.ReadBuffer(&byte, 1));
  EXPECT_EQ(errno, EBADF);
  std::string text = "before";
  EXPECT_FALSE(File::ReadStringAll("/proc/self/mem", text));
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(text, "before");
}

TEST_F(FileTest, OperationsOnClosedFileFail) {
  File file;
  unsigned char byte = 0;
  EXPECT_FALSE(file.ReadBuffer(&byte, 1));
  EXPECT_FALSE(file.WriteString(""));
  EXPECT_FALSE(file.seek(0));
  EXPECT_FALSE(file.Close());
  EXPECT_EQ(errno, EBADF);
}

TEST_F(FileTest, ShortWriteFails) {
  const FileSizeLimit limit(60);
  File file;
  ASSERT_TRUE(file.Initialize(path_, FILE_OPEN_MODE_TRUNCATE, 0));
  EXPECT_FALSE(file.WriteString(std::string(100, 'x')));
  EXPECT_EQ(errno, EFBIG);
  EXPECT_EQ(file.Cursor(), 60U);
}

TEST_F(FileTest, SeekingMovesCursorWithinFile) {
  writeText(path_, "0123456789");
  File file;
  ASSERT_TRUE(file.Initialize(path_, FILE_OPEN_MODE_READ, 0));
  unsigned char byte = 0;
  ASSERT_TRUE(file.seek(7));
  ASSERT_TRUE(file.ReadBuffer(&byte, 1));
  EXPECT_EQ(byte, '7');
  EXPECT_EQ(file.Cursor(), 8U);
  EXPECT_FALSE(file.seek(11));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(file.seek(10));
  EXPECT_TRUE(file.IsEOF());
  EXPECT_TRUE(file.seek(0));
}

TEST_F(FileTest, DescriptorsAreClosedOnExec) {
  File file;
  ASSERT_TRUE(file.Initialize(path_, FILE_OPEN_MODE_TRUNCATE, 0));
  int open = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry, gone) == path_) {
      ++open;
      EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
    }
  }
  EXPECT_EQ(open, 1);
}

TEST_F(FileTest, ReadStringAllReadsAndBoundsFilesWithoutSize) {
  std::string text;
  errno = EINTR;
  ASSERT_TRUE(File::ReadStringAll("/proc/self/status", text));
  EXPECT_NE(text.find("\nPid:"), std::string::npos);
  EXPECT_FALSE(File::ReadStringAll("/proc/self/status", text, 10));
  EXPECT_EQ(errno, EFBIG);
}

TEST_F(FileTest, ReadStringAllKeepsItsOutputOnFailure) {
  std::string text = "before";
  EXPECT_FALSE(File::ReadStringAll(path_, text));
  writeText(path_, "12345");
  EXPECT_FALSE(File::ReadStringAll(path_, text, 4));
  EXPECT_EQ(errno, EFBIG);
  EXPECT_EQ(text, "before");
  EXPECT_TRUE(File::ReadStringAll(path_, text, 5));
  EXPECT_EQ(text, "12345");
}

TEST_F(FileTest, ReadStringAllRefusesMoreThan64MiB) {
  writeText(path_, "");
  std::filesystem::resize_file(path_, File::kReadAllLimit + 1);
  std::string text;
  EXPECT_FALSE(File::ReadStringAll(path_, text));
  EXPECT_EQ(errno, EFBIG);
}

TEST_F(FileTest, DanglingLinkExistsOnlyUnfollowed) {
  EXPECT_FALSE(fileExists(path_.c_str(), true));
  EXPECT_FALSE(fileExists(path_.c_str(), false));
  std::filesystem::create_symlink("nowhere", path_);
  EXPECT_FALSE(fileExists(path_.c_str(), true));
  EXPECT_TRUE(fileExists(path_.c_str(), false));
  EXPECT_TRUE(fileExists(folder_.path().c_str(), true));
}

TEST_F(FileTest, CopyReplacesTarget) {
  const std::string to = folder_ / "copy";
  for (const std::size_t size : {0U, 1U, 65536U, 65537U, 200000U}) {
    writeText(path_, patterned(size));
    writeText(to, std::string(300000, 'z'));
    EXPECT_TRUE(copyFile(path_.c_str(), to.c_str()));
    EXPECT_EQ(readText(to), patterned(size));
  }
}

TEST_F(FileTest, CopyOntoItselfKeepsContent) {
  writeText(path_, "content");
  std::filesystem::create_hard_link(path_, folder_ / "same");
  EXPECT_FALSE(copyFile(path_.c_str(), (folder_ / "same").c_str()));
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(readText(path_), "content");
}

TEST_F(FileTest, CopyFailsWithoutSourceOrUsableTarget) {
  EXPECT_FALSE(copyFile(path_.c_str(), (folder_ / "copy").c_str()));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(folder_.entries(), 0);
  writeText(path_, "content");
  EXPECT_FALSE(copyFile(path_.c_str(), folder_.path().c_str()));
  EXPECT_EQ(errno, EINVAL);
  const FileSizeLimit limit(3);
  EXPECT_FALSE(copyFile(path_.c_str(), (folder_ / "copy").c_str()));
  EXPECT_EQ(errno, EFBIG);
}

}  // namespace
}  // namespace kova::utils
