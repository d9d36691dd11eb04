#include "kova/utils/Process.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "DescriptorLimit.h"
#include "Pipe.h"
#include "Script.h"
#include "kova/utils/Clock.h"

namespace {

/// Counts the calls of waitid(); with `seesOnlyEnd` they block until the child has exited.
unsigned looks = 0;
bool seesOnlyEnd = false;

}  // namespace

extern "C" int waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
  ++looks;
  if (seesOnlyEnd) options &= ~WNOHANG;
  return static_cast<int>(syscall(SYS_waitid, type, id, info, options, nullptr));
}

namespace kova::utils {
namespace {

using tests::readText;
using tests::TemporaryFolder;
using tests::writeScript;
using tests::writeText;

constexpr unsigned kKeepKiB = 1024;
constexpr unsigned kPatienceMs = 20000;

class SysExecTest : public testing::Test {
 protected:
  int run(const std::string& program, const std::vector<std::string>& arguments = {},
          const std::string& input = "") {
    return sysExec(program, arguments, input, out_, err_, timeoutMs_, graceMs_, captureKiB_);
  }
  int runScript(const std::string& body, const std::string& input = "") {
    return run(writeScript(folder_, "script", body), {}, input);
  }

  TemporaryFolder folder_;
  std::string out_ = "old";
  std::string err_ = "old";
  unsigned timeoutMs_ = kPatienceMs;
  unsigned graceMs_ = 0;
  unsigned captureKiB_ = kKeepKiB;
};

TEST_F(SysExecTest, PassesArgumentsWholeWithoutShell) {
  EXPECT_EQ(0, run("/usr/bin/printf", {"[%s]", "a b", "", "$(id)", "'; ls", "*"}));
  EXPECT_EQ("[a b][][$(id)]['; ls][*]", out_);
}

TEST_F(SysExecTest, RefusesArgumentWithNul) {
  EXPECT_EQ(kNotStarted, run("/bin/echo", {std::string("a\0b", 3)}));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ("", out_);
}

TEST_F(SysExecTest, ClosesInputAfterLastByte) {
  for (const std::string input : {"input", "i"}) {
    EXPECT_EQ(0, run("/bin/cat", {}, input));
    EXPECT_EQ(input, out_);
  }
  EXPECT_EQ(0, run("/bin/cat"));
  EXPECT_EQ("", out_);
}

TEST_F(SysExecTest, InputBeyondPipeCapacityDoesNotBlock) {
  std::string input(std::size_t{700} * 1024, 'a');
  input.back() = 'z';
  EXPECT_EQ(0, run("/bin/cat", {}, input));
  EXPECT_EQ(input, out_);
}

TEST_F(SysExecTest, ChildThatIgnoresInputIsHarmless) {
  EXPECT_EQ(0, runScript("exec <&-; echo done", std::string(std::size_t{1024} * 1024, 'x')));
  EXPECT_EQ("done\n", out_);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_EQ(0, sigismember(&blocked, SIGPIPE));
}

TEST_F(SysExecTest, EarlierSigPipeStaysPending) {
  sigset_t sigpipe;
  sigset_t previous;
  sigemptyset(&sigpipe);
  sigaddset(&sigpipe, SIGPIPE);
  ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &sigpipe, &previous));
  raise(SIGPIPE);
  EXPECT_EQ(0, runScript("exec <&-", std::string(std::size_t{1024} * 1024, 'x')));
  const timespec atOnce{};
  EXPECT_EQ(SIGPIPE, sigtimedwait(&sigpipe, nullptr, &atOnce));
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

TEST_F(SysExecTest, UnreadInputIsClosed) {
  const std::string untilClosedHere =
      "pipe=$(readlink /proc/$$/fd/0); exec <&-; left=200\n"
      "while ls -l /proc/$PPID/fd | grep -qF \"$pipe\"; do\n"
      "  left=$((left - 1)); [ $left -gt 0 ] || exit 9; sleep 0.02\n"
      "done";
  EXPECT_EQ(0, runScript(untilClosedHere, std::string(std::size_t{1024} * 1024, 'x')));
}

TEST_F(SysExecTest, KeepsOnlyRequestedOutputAndDrainsRest) {
  captureKiB_ = 128;
  EXPECT_EQ(0, runScript("head -c 10485760 /dev/zero; echo all printed >&2"));
  EXPECT_EQ(128U * 1024U, out_.size());
  EXPECT_EQ("all printed\n", err_);
}

TEST_F(SysExecTest, KeepsOneMegabyteOfBothStreams) {
  EXPECT_EQ(0, runScript("head -c 1048576 /dev/zero & head -c 1048576 /dev/zero >&2; wait"));
  EXPECT_EQ(1024U * 1024U, out_.size());
  EXPECT_EQ(1024U * 1024U, err_.size());
}

TEST_F(SysExecTest, DeathBySignalFails) {
  EXPECT_EQ(128 + SIGSEGV, runScript("kill -SEGV $$"));
}

TEST_F(SysExecTest, ReportsProgramThatCannotStart) {
  EXPECT_EQ(kNotStarted, run(folder_ / "missing"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ("", out_);
  EXPECT_EQ("", err_);
  writeText(folder_ / "plain", "#!/bin/sh\n");
  EXPECT_EQ(kNotStarted, run(folder_ / "plain"));
  EXPECT_EQ(EACCES, errno);
  writeText(folder_ / "garbage", "\x01\x02\x03");
  chmod((folder_ / "garbage").c_str(), 0755);
  EXPECT_EQ(kNotStarted, run(folder_ / "garbage"));
  EXPECT_EQ(ENOEXEC, errno);
  EXPECT_EQ(kNotStarted, run(""));
}

TEST_F(SysExecTest, TerminatesHangingChild) {
  timeoutMs_ = 100;
  graceMs_ = kPatienceMs;
  const std::uint64_t before = nowMs();
  EXPECT_EQ(128 + SIGTERM, run("/bin/sleep", {"60"}));
  EXPECT_LT(nowMs() - before, 10000U);
}

TEST_F(SysExecTest, KillsChildThatIgnoresSigterm) {
  timeoutMs_ = 200;
  graceMs_ = 200;
  const std::uint64_t before = nowMs();
  EXPECT_EQ(128 + SIGKILL, runScript("trap '' TERM; echo ready; while :; do sleep 1; done"));
  EXPECT_GE(nowMs() - before, 400U);
  EXPECT_LT(nowMs() - before, 10000U);
  EXPECT_EQ("ready\n", out_);
}

TEST_F(SysExecTest, EndlessOutputMeetsTimeout) {
  timeoutMs_ = 1000;
  EXPECT_EQ(128 + SIGKILL, run("/usr/bin/yes"));
  EXPECT_EQ(kKeepKiB * 1024U, out_.size());
}

TEST_F(SysExecTest, DoesNotWaitForProgramsLeftRunning) {
  const std::uint64_t before = nowMs();
  EXPECT_EQ(0, runScript("sleep 60 & echo $!"));
  EXPECT_LT(nowMs() - before, 10000U);
  const int grandchild = std::stoi(out_);
  EXPECT_EQ(0, kill(grandchild, SIGKILL));
}

TEST_F(SysExecTest, PollsForExitEvery16Milliseconds) {
  const auto before = nowMs();
  looks = 0;
  EXPECT_EQ(9, runScript("exec >&- 2>&-; sleep 0.2; exit 9"));
  EXPECT_EQ(0, run("/bin/sleep", {"0.2"}));
  EXPECT_EQ(0, sysExecSimple("/bin/sleep", "0.2"));
  EXPECT_GT(looks, 0U);
  EXPECT_LT(looks, (nowMs() - before) / 8 + 30);
}

TEST_F(SysExecTest, OutputLeftInPipesIsRead) {
  const std::string larger = "fcntl(STDOUT, 1031, 1 << 20) or exit 1; ";  // F_SETPIPE_SZ
  seesOnlyEnd = true;
  const int status =
      run("/usr/bin/perl", {"-e", larger + "print 'x' x 131073; print STDERR 'y' x 1024"});
  seesOnlyEnd = false;
  EXPECT_EQ(0, status);
  EXPECT_EQ(std::string(131073, 'x'), out_);
  EXPECT_EQ(std::string(1024, 'y'), err_);
}

TEST_F(SysExecTest, ChildInheritsOnlyThreeStreams) {
  const int leaked = fcntl(STDERR_FILENO, F_DUPFD, 100);  // on purpose without close-on-exec
  ASSERT_GE(leaked, 100);
  EXPECT_EQ(0, run("/bin/ls", {"/proc/self/fd"}));
  close(leaked);
  EXPECT_EQ("0\n1\n2\n3\n", out_);  // 3 is the listed folder itself
}

TEST_F(SysExecTest, ChildHasDefaultSignalHandling) {
  sigset_t blocked;
  sigset_t previous;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  sigprocmask(SIG_BLOCK, &blocked, &previous);
  const auto ignored = signal(SIGUSR2, SIG_IGN);
  EXPECT_EQ(0, run("/bin/grep", {"-E", "^Sig(Blk|Ign):", "/proc/self/status"}));
  signal(SIGUSR2, ignored);
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  // The C library reserves signals 32 and 33.
  EXPECT_THAT(out_, testing::MatchesRegex("SigBlk:\t0000000000000000\n"
                                          "SigIgn:\t0000000[01]80000000\n|"
                                          "SigBlk:\t0000000000000000\n"
                                          "SigIgn:\t0000000000000000\n"));
}

TEST_F(SysExecTest, InterruptionsAreHarmless) {
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, &previous);
  const itimerval every2Ms{{0, 2000}, {0, 2000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &every2Ms, nullptr);
  const std::string input(std::size_t{300} * 1024, 'i');
  const int captured = run("/bin/cat", {}, input);
  const int plain = sysExecSimple("/bin/sleep", "0.1");
  int started = 0;
  while (started < 50 && runDaemon(nullptr, nullptr, nullptr, "/bin/true", 0)) ++started;
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &previous, nullptr);
  EXPECT_EQ(0, captured);
  EXPECT_EQ(input, out_);
  EXPECT_EQ(0, plain);
  EXPECT_EQ(50, started);
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no child is left";
}

/// Runs `body` in a process without standard streams and returns its exit status.
template <typename Body>
int withoutStandardStreams(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    for (int fd = 0; fd < 3; ++fd) close(fd);
    _exit(body());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(SysExecTest, WorksWithoutStandardStreamsOfCaller) {
  const std::string script = writeScript(folder_, "script", "cat; echo err >&2; exit 4");
  EXPECT_EQ(0, withoutStandardStreams([&] {
              if (run(script, {}, "in") != 4) return 1;
              if (out_ != "in" || err_ != "err\n") return 2;
              return sysExecSimple("/bin/true") == 0 ? 0 : 3;
            }));
}

TEST(PipeTest, AvoidsNumbersOfStandardStreams) {
  EXPECT_EQ(0, withoutStandardStreams([] {
              for (int taken = 0; taken < 3; ++taken) {
                Pipe pipe;
                if (!pipe.open() || pipe.read.get() < 3 || pipe.write.get() < 3) return 1;
                if (open("/dev/null", O_RDONLY) != taken) return 2;
              }
              return 0;
            }));
}

TEST(PipeTest, NeedsTwoDescriptors) {
  EXPECT_EQ(0, withoutStandardStreams([] {
              closefrom(0);
              for (const rlim_t end : {1, 4}) {
                const tests::DescriptorLimit limit(end);
                Pipe pipe;
                if (pipe.open() || errno != EMFILE) return 1;
              }
              return 0;
            }));
}

TEST(SysExecSimple, ReturnsExitStatus) {
  EXPECT_EQ(0, sysExecSimple("/bin/echo", "x")) << "its output is discarded";
  EXPECT_EQ(5, sysExecSimple("/bin/sh", "-c", "exit 5"));
  EXPECT_EQ(128 + SIGABRT, sysExecSimple("/bin/sh", "-c", "kill -ABRT $$"));
  EXPECT_EQ(kNotStarted, sysExecSimple("/no/such/program", "x"));
  EXPECT_EQ(ENOENT, errno);
}

TEST(SysExecSimple, StandardStreamsAreNullDevice) {
  const TemporaryFolder folder;
  const std::string script =
      writeScript(folder, "script", "for fd in 0 1 2; do readlink /proc/$$/fd/$fd; done > \"$1\"");
  EXPECT_EQ(0, sysExecSimple(script.c_str(), folder / "streams"));
  // Standard output is redirected inside the script's loop only, so the shell's own shows the file.
  EXPECT_THAT(readText(folder / "streams"), testing::StartsWith("/dev/null\n"));
  EXPECT_THAT(readText(folder / "streams"), testing::EndsWith("/dev/null\n"));
}

}  // namespace
}  // namespace kova::utils
