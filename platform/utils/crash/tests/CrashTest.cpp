#include "kova/utils/Crash.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>

#include "CrashInternal.h"
#include "CrashText.h"
#include "TemporaryFolder.h"
#include "kova/utils/Clock.h"

namespace kova::utils {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using tests::readText;
using tests::TemporaryFolder;

/// A system log of the test.
class LogSocket {
 public:
  explicit LogSocket(const std::string& path) : fd_(socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address));
  }
  ~LogSocket() { close(fd_); }
  LogSocket(const LogSocket&) = delete;
  LogSocket& operator=(const LogSocket&) = delete;

  /// Returns the lines received so far.
  void receive() {
    char line[4096];
    ssize_t got = 0;
    while ((got = recv(fd_, line, sizeof line, MSG_DONTWAIT)) > 0) {
      text_.append(line, static_cast<std::size_t>(got)) += '\n';
    }
  }

  const std::string& Received() const { return text_; }

 private:
  int fd_;
  std::string text_;
};

class CrashTest : public testing::Test {
 protected:
  /// Runs `crash` in a process with the handler installed; returns the status of waitpid(2).
  int crash(const std::function<void()>& crash) {
    child_ = fork();
    if (child_ == 0) {
      if (!installCrashDumpHandler(reports_.c_str(), socketPath_.c_str())) _exit(99);
      crash();
      _exit(98);
    }
    int status = 0;
    while (waitpid(child_, &status, WNOHANG) == 0) {
      log_.receive();
      sleepMs(1);
    }
    log_.receive();
    return status;
  }

  std::string Report() const {
    return readText(folder_ / ("kova_crash." + std::to_string(child_)));
  }

  TemporaryFolder folder_;
  std::string reports_ = folder_.path();
  const std::string socketPath_ = folder_ / "log";
  LogSocket log_{socketPath_};
  pid_t child_ = -1;
};

void expectKilledBy(int number, int status) {
  EXPECT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(number, WTERMSIG(status));
}

TEST_F(CrashTest, ForceCrashLeavesReportAndAborts) {
  expectKilledBy(SIGABRT, crash([] { forceCrash(); }));
  EXPECT_THAT(Report(),
              ContainsRegex("Crashed by signal 6 \\(Aborted\\), program counter 0x[0-9a-f]+"));
  EXPECT_THAT(Report(), HasSubstr("(abort+0x"));
}

TEST_F(CrashTest, ReportGoesToSystemLog) {
  crash([] { forceCrash(); });
  const std::string& log = log_.Received();
  const std::string report = Report();
  const std::string tag = "[" + std::to_string(child_) + "]: ";
  EXPECT_THAT(log, testing::StartsWith("<10>"));
  EXPECT_THAT(log, HasSubstr(tag + "Crashed by signal 6"));
  EXPECT_THAT(log, HasSubstr(tag + "Build-id of the program: "));
  EXPECT_THAT(log, HasSubstr(tag + "/")) << "the path of a program";
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'),
            std::count(log.begin(), log.end(), '\n'));
  EXPECT_THAT(log, HasSubstr("(abort+0x"));
}

TEST_F(CrashTest, ReportNamesBuildOfProgram) {
  crash([] { forceCrash(); });
  EXPECT_THAT(Report(), ContainsRegex("0x[0-9a-f]+\nBuild-id of the program: [0-9a-f]{40}\n"));
}

TEST_F(CrashTest, FrameNamesPlaceInFile) {
  crash([] { forceCrash(); });
  EXPECT_THAT(Report(), ContainsRegex("\\(abort\\+0x[0-9a-f]+\\)\\[0x[0-9a-f]+\\] library\\+0x"));
  EXPECT_THAT(Report(), ContainsRegex("\\[0x[0-9a-f]+\\] program\\+0x[0-9a-f]+\n"));
}

TEST_F(CrashTest, ReportNamesFaultAddress) {
  expectKilledBy(SIGSEGV, crash([] {
                   auto* volatile nowhere = reinterpret_cast<volatile int*>(0x1230);
                   *nowhere = 1;
                 }));
  EXPECT_THAT(Report(), HasSubstr("fault address 0x1230\n"));
}

TEST_F(CrashTest, ReportNamesAddressOfBusError) {
  const std::string file = folder_ / "mapped";
  tests::writeText(file, "x");
  expectKilledBy(SIGBUS, crash([&] {
                   const int fd = open(file.c_str(), O_RDWR);
                   auto* const page =
                       static_cast<volatile char*>(mmap(nullptr, 1, PROT_READ, MAP_SHARED, fd, 0));
                   if (ftruncate(fd, 0) == 0) _exit(page[0]);
                 }));
  EXPECT_THAT(Report(), ContainsRegex("fault address 0x[0-9a-f]+000\n"));
}

int recurse(volatile char* above, const volatile bool& goOn) {
  volatile char frame[4096];
  frame[0] = *above;
  return goOn ? recurse(frame, goOn) + frame[0] : 0;
}

TEST_F(CrashTest, StackOverflowIsReported) {
  expectKilledBy(SIGSEGV, crash([] {
                   volatile char top = 0;
                   const volatile bool forEver = true;
                   recurse(&top, forEver);
                 }));
  EXPECT_THAT(Report(), HasSubstr("Crashed by signal 11"));
}

class EachSignal : public CrashTest, public testing::WithParamInterface<int> {};

TEST_P(EachSignal, IsReportedAndTakesDefaultAction) {
  const int number = GetParam();
  expectKilledBy(number, crash([number] { raise(number); }));
  EXPECT_THAT(Report(), HasSubstr("Crashed by signal " + std::to_string(number) + " ("));
  EXPECT_THAT(Report(), Not(HasSubstr("fault address"))) << "it was sent";
}

INSTANTIATE_TEST_SUITE_P(CrashTest, EachSignal,
                         testing::Values(SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS),
                         [](const auto& test) { return std::string(sigabbrev_np(test.param)); });

TEST_F(CrashTest, OldReportOfSameNumberIsReplacedAndLinkNotFollowed) {
  const std::string victim = folder_ / "victim";
  tests::writeText(victim, "precious");
  crash([&] {
    const std::string report = folder_ / ("kova_crash." + std::to_string(getpid()));
    if (symlink(victim.c_str(), report.c_str()) == 0) forceCrash();
  });
  EXPECT_EQ("precious", readText(victim));
  EXPECT_THAT(Report(), HasSubstr("Crashed by signal 6"));
}

TEST_F(CrashTest, ReportGoesToSystemLogWithoutFolder) {
  reports_ = folder_ / "missing";
  expectKilledBy(SIGABRT, crash([] { forceCrash(); }));
  EXPECT_THAT(log_.Received(), HasSubstr("Crashed by signal 6"));
}

TEST_F(CrashTest, StalledSystemLogDoesNotBlockReport) {
  const std::uint64_t before = nowMs();
  child_ = fork();
  if (child_ == 0) {
    if (installCrashDumpHandler(reports_.c_str(), socketPath_.c_str())) forceCrash();
    _exit(99);
  }
  int status = 0;
  waitpid(child_, &status, 0);
  expectKilledBy(SIGABRT, status);
  EXPECT_LT(nowMs() - before, 2500U);
  EXPECT_THAT(Report(), HasSubstr("__libc_start_main"));
}

TEST_F(CrashTest, ReportGoesToFileWithoutSystemLog) {
  unlink(socketPath_.c_str());
  expectKilledBy(SIGABRT, crash([] { forceCrash(); }));
  EXPECT_THAT(Report(), HasSubstr("Crashed by signal 6"));
}

TEST(InstallCrashDumpHandler, RefusesTooLongPath) {
  EXPECT_FALSE(installCrashDumpHandler(std::string(5000, 'x').c_str(), "/dev/log"));
  EXPECT_FALSE(installCrashDumpHandler("/tmp", std::string(200, 'x').c_str()));
}

TEST(CrashText, WritesNumbersAndTruncates) {
  CrashText<64> text;
  text.appendNumber(0).append(" ").appendNumber(UINT64_MAX).append(" ").appendHex(0xdeadbeef01);
  EXPECT_EQ("0 18446744073709551615 deadbeef01", text.view());
  CrashText<5> little;
  EXPECT_STREQ("abcd", little.append("abc").append("def").append("g").text());
}

}  // namespace
}  // namespace kova::utils
