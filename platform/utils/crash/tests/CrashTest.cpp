#include "kova/utils/Crash.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
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
#include "kova/utils/UniqueFd.h"

namespace {

enum class Unwinder { Works, Hangs, Crashes } unwinder = Unwinder::Works;

/// Hangs until the alarm, which must be due within three seconds and is then brought forward.
[[noreturn]] void hang() {
  itimerval left{};
  getitimer(ITIMER_REAL, &left);
  if (!timerisset(&left.it_value) || left.it_value.tv_sec >= 3) _exit(97);
  left.it_value = {0, 1};
  setitimer(ITIMER_REAL, &left, nullptr);
  while (true) pause();
}

}  // namespace

extern "C" int backtrace(void** frames, int size) {
  static const auto real = reinterpret_cast<decltype(&backtrace)>(dlsym(RTLD_NEXT, "backtrace"));
  static bool isLoaded = false;
  if (size > 1 && !isLoaded) return 0;  // libgcc cannot be loaded in a handler
  isLoaded = size > 0;
  if (size > 1 && unwinder == Unwinder::Hangs) hang();
  if (size > 1 && unwinder == Unwinder::Crashes) raise(SIGBUS);
  return real(frames, size);
}

namespace kova::utils {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using tests::readText;
using tests::TemporaryFolder;

/// A fake system log.
class LogSocket {
 public:
  explicit LogSocket(const std::string& path) {
    address_.sun_family = AF_UNIX;
    path.copy(address_.sun_path, sizeof address_.sun_path - 1);
    EXPECT_EQ(0, bind(fd_.get(), reinterpret_cast<sockaddr*>(&address_), sizeof address_));
  }

  /// Stores the lines received so far.
  void receive() {
    char line[4096];
    ssize_t got = 0;
    while ((got = recv(fd_.get(), line, sizeof line, MSG_DONTWAIT)) > 0) {
      text_.append(line, static_cast<std::size_t>(got)) += '\n';
    }
  }

  const std::string& text() const { return text_; }

  /// Sends until the queue is full.
  void fill() const {
    const UniqueFd sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    const auto* const address = reinterpret_cast<const sockaddr*>(&address_);
    while (sendto(sender.get(), "x", 1, 0, address, sizeof address_) == 1) {
    }
  }

 private:
  UniqueFd fd_{socket(AF_UNIX, SOCK_DGRAM, 0)};
  sockaddr_un address_{};
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

  std::string reportPath() const { return folder_ / ("kova_crash." + std::to_string(child_)); }
  std::string reportText() const { return readText(reportPath()); }

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
  EXPECT_THAT(reportText(),
              ContainsRegex("Crashed by signal 6 \\(Aborted\\), program counter 0x[0-9a-f]+"));
  EXPECT_THAT(reportText(), HasSubstr("(abort+0x"));
  EXPECT_EQ(tests::modeOf(reportPath()), 0600U);
}

TEST_F(CrashTest, ReportGoesToSystemLog) {
  crash([] { forceCrash(); });
  const std::string& log = log_.text();
  const std::string report = reportText();
  const std::string tag = "[" + std::to_string(child_) + "]: ";
  EXPECT_THAT(log, testing::StartsWith("<10>"));
  EXPECT_THAT(log, HasSubstr(tag + "Crashed by signal 6"));
  EXPECT_THAT(log, HasSubstr(tag + "Build-id of the program: "));
  EXPECT_THAT(log, HasSubstr(tag + "/")) << "path of a module";
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'),
            std::count(log.begin(), log.end(), '\n'));
  EXPECT_THAT(log, HasSubstr("(abort+0x"));
}

TEST_F(CrashTest, ReportNamesBuildAndPlacesInFiles) {
  crash([] { forceCrash(); });
  EXPECT_THAT(reportText(), ContainsRegex("0x[0-9a-f]+\nBuild-id of the program: [0-9a-f]{40}\n/"));
  EXPECT_THAT(reportText(),
              ContainsRegex("\\(abort\\+0x[0-9a-f]+\\)\\[0x[0-9a-f]+\\] library\\+0x"));
  EXPECT_THAT(reportText(), ContainsRegex("\\[0x[0-9a-f]+\\] program\\+0x[0-9a-f]+\n"));
}

TEST_F(CrashTest, ReportNamesFaultAddress) {
  expectKilledBy(SIGSEGV, crash([] {
                   auto* volatile nowhere = reinterpret_cast<volatile int*>(0x1230);
                   *nowhere = 1;
                 }));
  EXPECT_THAT(reportText(), HasSubstr("fault address 0x1230\n"));
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
  const std::string report = reportText();
  EXPECT_THAT(report, HasSubstr("Crashed by signal 11"));
  EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 2 + 48);
}

TEST_F(CrashTest, HangingUnwinderIsEnded) {
  expectKilledBy(SIGALRM, crash([] {
                   unwinder = Unwinder::Hangs;
                   sigset_t blocked;
                   sigemptyset(&blocked);
                   sigaddset(&blocked, SIGALRM);
                   sigprocmask(SIG_BLOCK, &blocked, nullptr);
                   signal(SIGALRM, SIG_IGN);
                   forceCrash();
                 }));
  EXPECT_THAT(reportText(), HasSubstr("Crashed by signal 6"));
}

TEST_F(CrashTest, CrashOfHandlerKeepsReport) {
  expectKilledBy(SIGBUS, crash([] {
                   unwinder = Unwinder::Crashes;
                   forceCrash();
                 }));
  EXPECT_THAT(reportText(), HasSubstr("Crashed by signal 6"));
}

class EachSignal : public CrashTest, public testing::WithParamInterface<int> {};

TEST_P(EachSignal, IsReportedAndTakesDefaultAction) {
  const int number = GetParam();
  expectKilledBy(number, crash([number] { kill(getpid(), number); }));
  EXPECT_THAT(reportText(), HasSubstr("Crashed by signal " + std::to_string(number) + " ("));
  EXPECT_THAT(reportText(), Not(HasSubstr("fault address"))) << "the signal was sent";
}

TEST_P(EachSignal, HasAddressIfFault) {
  const int number = GetParam();
  siginfo_t ofKernel{};
  ofKernel.si_signo = number;
  ofKernel.si_code = 1;
  ofKernel.si_addr = reinterpret_cast<void*>(0x1230);
  expectKilledBy(number, crash([&] {
                   syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), number, &ofKernel);
                 }));
  const bool isFault = number != SIGABRT && number != SIGSYS;
  EXPECT_EQ(reportText().find("fault address 0x1230\n") != std::string::npos, isFault);
}

INSTANTIATE_TEST_SUITE_P(CrashTest, EachSignal,
                         testing::Values(SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS),
                         [](const auto& test) { return std::string(sigabbrev_np(test.param)); });

TEST_F(CrashTest, OldReportOfSamePidIsReplacedAndLinkNotFollowed) {
  const std::string victim = folder_ / "victim";
  tests::writeText(victim, "precious");
  crash([&] {
    const std::string report = folder_ / ("kova_crash." + std::to_string(getpid()));
    if (symlink(victim.c_str(), report.c_str()) == 0) forceCrash();
  });
  EXPECT_EQ("precious", readText(victim));
  EXPECT_THAT(reportText(), HasSubstr("Crashed by signal 6"));
}

TEST_F(CrashTest, ReportGoesToSystemLogWithoutFolder) {
  reports_ = folder_ / "missing";
  expectKilledBy(SIGABRT, crash([] { forceCrash(); }));
  EXPECT_THAT(log_.text(), HasSubstr("Crashed by signal 6"));
}

TEST_F(CrashTest, StalledSystemLogDoesNotBlockReport) {
  log_.fill();
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
  EXPECT_THAT(reportText(), HasSubstr("__libc_start_main"));
}

TEST_F(CrashTest, ReportGoesToFileWithoutSystemLog) {
  unlink(socketPath_.c_str());
  expectKilledBy(SIGABRT, crash([] { forceCrash(); }));
  EXPECT_THAT(reportText(), HasSubstr("Crashed by signal 6"));
}

TEST(InstallCrashDumpHandler, RefusesTooLongPath) {
  EXPECT_FALSE(installCrashDumpHandler(std::string(1024, 'x').c_str(), "/dev/log"));
  EXPECT_FALSE(installCrashDumpHandler("/tmp", std::string(108, 'x').c_str()));
}

TEST_F(CrashTest, FolderIsOptional) {
  EXPECT_EQ(0, crash([] { _exit(InstallCrashDumpHandler(nullptr) ? 0 : 1); }));
}

TEST(CrashText, WritesNumbersAndTruncates) {
  CrashText<64> text;
  text.appendNumber(0).append(" ").appendNumber(UINT64_MAX).append(" ").appendHex(0xdeadbeef01);
  text.append(" ").appendByte(0x0f).appendByte(0x10);
  EXPECT_EQ("0 18446744073709551615 deadbeef01 0f10", text.view());
  CrashText<5> little;
  EXPECT_STREQ("abcd", little.append("abc").append("def").append("g").text());
}

}  // namespace
}  // namespace kova::utils
