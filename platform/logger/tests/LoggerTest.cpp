#include "kova/logger/Logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "SyslogRecorder.h"

namespace {
std::uint64_t turnedMs = 1;
}

namespace kova::utils {
std::uint64_t nowMs() {
  return turnedMs;
}
}  // namespace kova::utils

namespace kova::logger {
namespace {

using tests::records;

constexpr char kLogIdentity[] = "kova_test";
constexpr char kLogUnit[] = "LoggerTest";

class LoggerTest : public testing::Test {
 protected:
  void SetUp() override {
    records.clear();
    turnedMs += 1000;
  }

  /// The text of the only line written, after "IDENTITY UNIT.FUNCTION:LINE: ".
  static std::string text() {
    const std::string prefix = "kova_test LoggerTest.f:1: ";
    if (records.size() != 1 || !records[0].text.starts_with(prefix)) {
      ADD_FAILURE() << "not exactly one line of this test";
      return "";
    }
    return records[0].text.substr(prefix.size());
  }

  static void log(const std::string& text, int error = 0) {
    logInternal(kLogIdentity, kLogUnit, "f", 1, LOG_ERR, error, "%s", text.c_str());
  }
};

TEST_F(LoggerTest, LineNamesIdentityUnitFunctionLineAndLevel) {
  const int line = __LINE__ + 1;
  KOVA_LOG_IN("readStats", LOG_WARNING, 0, "%s is %d", "it", 7);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].priority, 4);
  EXPECT_EQ(records[0].text,
            "kova_test LoggerTest.readStats:" + std::to_string(line) + ": it is 7");
}

TEST_F(LoggerTest, ShortMacroNamesEnclosingFunction) {
  KOVA_LOG(LOG_INFO, 0, "here");
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].priority, 6);
  EXPECT_NE(records[0].text.find(" LoggerTest.TestBody:"), std::string::npos) << records[0].text;
}

TEST_F(LoggerTest, ErrorNumberIsExplainedAtEnd) {
  log("Cannot read /file", ENOENT);
  EXPECT_EQ(text(), "Cannot read /file: No such file or directory");
}

TEST_F(LoggerTest, FormatDirectivesInTextAreLiteral) {
  for (const char* literal : {"100%s %n %%", ""}) {
    records.clear();
    log(literal);
    EXPECT_EQ(text(), literal);
  }
}

TEST_F(LoggerTest, ControlCharactersCannotStartNewLine) {
  log("name\nJan 1 00:00:00 forged\r\t\x1b[2J\x7f");
  EXPECT_EQ(text(), "name\\x0aJan 1 00:00:00 forged\\x0d\\x09\\x1b[2J\\x7f");
}

TEST_F(LoggerTest, OtherLanguagesStayReadable) {
  log("Zürich 東京");
  EXPECT_EQ(text(), "Zürich 東京");
}

TEST_F(LoggerTest, TextOver8KiBIsCutAndMarked) {
  const std::string whole(8192, 'w');
  log(whole);
  EXPECT_EQ(text(), whole);
  records.clear();
  log(whole + "x", EIO);
  EXPECT_EQ(text(), whole + "...: Input/output error");
}

TEST_F(LoggerTest, RepetitionsAreCountedUntilAnotherLine) {
  for (int i = 0; i < 17 + 2; ++i) {
    log("again");
  }
  EXPECT_EQ(records.size(), 17U);
  log("other");
  ASSERT_EQ(records.size(), 19U);
  EXPECT_EQ(records[17].text, "kova_test LoggerTest.f:1: again ... repeated 2 times");
  EXPECT_EQ(records[17].priority, LOG_ERR);
  EXPECT_TRUE(records[18].text.ends_with(": other"));
}

TEST_F(LoggerTest, FlushWritesCountsAfterOneSecond) {
  for (int i = 0; i < 17 + 2; ++i) {
    log("again");
  }
  flushRepeats();
  EXPECT_EQ(records.size(), 17U);
  turnedMs += 1000;
  flushRepeats();
  EXPECT_EQ(records.size(), 18U);
}

TEST_F(LoggerTest, SameTextFromAnotherPlaceIsNotRepetition) {
  log("again");
  logInternal(kLogIdentity, kLogUnit, "f", 2, LOG_ERR, 0, "again");
  EXPECT_EQ(records.size(), 2U);
}

TEST_F(LoggerTest, PreservesErrno) {
  errno = EXDEV;
  log("anything");
  EXPECT_EQ(errno, EXDEV);
}

/// Replaces standard error by a terminal or a file for the lifetime of the object.
class StandardError {
 public:
  explicit StandardError(int fd) : saved_(dup(STDERR_FILENO)) { dup2(fd, STDERR_FILENO); }
  ~StandardError() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;

 private:
  int saved_;
};

TEST_F(LoggerTest, LinesAreCopiedToTerminal) {
  int master = -1;
  int terminal = -1;
  ASSERT_EQ(openpty(&master, &terminal, nullptr, nullptr, nullptr), 0);
  {
    const StandardError redirected(terminal);
    log("shown");
  }
  pollfd written{master, POLLIN, 0};
  ASSERT_EQ(poll(&written, 1, 10'000), 1);
  std::array<char, 256> shown{};
  const ssize_t got = read(master, shown.data(), shown.size());
  close(terminal);
  close(master);
  ASSERT_GT(got, 0);
  EXPECT_EQ(std::string(shown.data(), static_cast<std::size_t>(got)),
            "kova_test LoggerTest.f:1: shown\r\n");
}

TEST_F(LoggerTest, LinesAreNotCopiedElsewhere) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
  {
    const StandardError redirected(ends[1]);
    log("hidden");
  }
  std::array<char, 256> shown{};
  EXPECT_EQ(read(ends[0], shown.data(), shown.size()), -1);
  close(ends[0]);
  close(ends[1]);
  EXPECT_EQ(text(), "hidden");
}

}  // namespace
}  // namespace kova::logger
