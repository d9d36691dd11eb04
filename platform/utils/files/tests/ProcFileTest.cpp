#include "kova/utils/ProcFile.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include "TemporaryFolder.h"

namespace kova::utils {
namespace {

using tests::TemporaryFolder;
using tests::writeText;

constexpr auto kOnePiece = ProcFile::Form::OnePiece;
constexpr auto kRecords = ProcFile::Form::Records;

TEST(ProcFileTest, ReadsMoreThanItsBuffer) {
  const TemporaryFolder folder;
  for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 100000U}) {
    const std::string content(size, 'x');
    writeText(folder / "file", content);
    for (const auto form : {kOnePiece, kRecords}) {
      ProcFile file(folder / "file", form);
      std::string_view text;
      ASSERT_EQ(0, file.open());
      errno = EINTR;  // left by an earlier call
      ASSERT_EQ(0, file.read(text));
      EXPECT_EQ(content, text);
      ASSERT_EQ(0, file.read(text));
      EXPECT_EQ(content, text);
    }
  }
}

TEST(ProcFileTest, EveryReadOfOpenFileIsFresh) {
  char before[16] = {};
  prctl(PR_GET_NAME, before);
  ProcFile file("/proc/thread-self/comm", kOnePiece);
  std::string_view text;
  prctl(PR_SET_NAME, "longer name");
  EXPECT_EQ(0, file.read(text));
  EXPECT_EQ("longer name\n", text);
  prctl(PR_SET_NAME, "short");
  EXPECT_EQ(0, file.read(text));
  EXPECT_EQ("short\n", text);
  prctl(PR_SET_NAME, before);
}

TEST(ProcFileTest, ReadsAllRecordsOfLongList) {
  std::ifstream whole("/proc/kallsyms");
  const std::string expected{std::istreambuf_iterator<char>(whole), {}};
  if (expected.size() < 10000) GTEST_SKIP() << "this kernel lists no symbols";
  ProcFile file("/proc/kallsyms", kRecords);
  std::string_view text;
  ASSERT_EQ(0, file.read(text));
  EXPECT_EQ(expected.size(), text.size());
}

TEST(ProcFileTest, ReportsFailureAndTriesAgain) {
  const TemporaryFolder folder;
  ProcFile file(folder / "file", kOnePiece);
  std::string_view text = "old";
  EXPECT_EQ(ENOENT, file.open());
  EXPECT_EQ(ENOENT, file.read(text));
  EXPECT_EQ("", text);
  writeText(folder / "file", "now");
  EXPECT_EQ(0, file.read(text));
  EXPECT_EQ("now", text);
  ProcFile notAFile(folder.path(), kOnePiece);
  EXPECT_EQ(EISDIR, notAFile.read(text));
}

}  // namespace
}  // namespace kova::utils
