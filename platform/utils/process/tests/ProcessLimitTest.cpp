#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <limits>

#include "Processes.h"
#include "ProgramLimits.h"
#include "RunToEnd.h"
#include "Script.h"
#include "SyslogRecorder.h"
#include "Watchdog.h"
#include "kova/utils/Process.h"

namespace kova::utils {
namespace {

using tests::eventually;
using tests::isRunning;
using tests::readText;
using tests::TemporaryFolder;
using tests::writeScript;

constexpr unsigned kNone = 0;
constexpr unsigned kLongMs = 20'000;

TEST(ProgramLimits, EveryProgramHasLimit) {
  EXPECT_EQ(timeLimit("/bin/cfgmtd", kNone), 60'000U);
  EXPECT_EQ(timeLimit("/bin/fwupdate.real", kNone), 60'000U);
  EXPECT_EQ(timeLimit("/usr/bin/reboot", kNone), 60'000U);
  EXPECT_EQ(timeLimit("/usr/bin/fw_setenv", kNone), 15'000U);
  EXPECT_EQ(timeLimit("/bin/kova_cmd_apply_camera_name.sh", kNone), 15'000U);
  EXPECT_EQ(timeLimit("/bin/fwupdate", kNone), 1'800'000U);
  EXPECT_EQ(timeLimit("/bin/support", kNone), 600'000U);
  EXPECT_EQ(timeLimit("/bin/anything", kNone), 60'000U);
}

TEST(ProgramLimits, CallersMayOnlyShortenToolLimit) {
  EXPECT_EQ(timeLimit("/bin/cfgmtd", 100), 100U);
  EXPECT_EQ(timeLimit("/bin/cfgmtd", 100'000), 60'000U);
  EXPECT_EQ(timeLimit("/bin/anything", 100'000), 100'000U);
}

TEST(ProgramLimits, GraceIsRequestedWithTimeout) {
  EXPECT_EQ(graceTime(kNone, 5), 1'000U);
  EXPECT_EQ(graceTime(1, 5), 5U);
}

TEST(WatchdogTest, PollEndsWhenSignalIsDue) {
  constexpr pid_t kNoGroup = std::numeric_limits<pid_t>::max();
  const std::string program = "/bin/anything";
  Watchdog patient(kNoGroup, program, kLongMs, 0);
  patient.check();
  EXPECT_FALSE(patient.expired());
  EXPECT_EQ(patient.pollTimeout(7), 7);
  EXPECT_LE(patient.pollTimeout(INT_MAX), static_cast<int>(kLongMs));
  for (const unsigned graceMs : {0U, kLongMs}) {
    Watchdog watchdog(kNoGroup, program, 0, graceMs);
    EXPECT_EQ(watchdog.pollTimeout(7), 0);
    tests::records.clear();
    watchdog.check();
    EXPECT_TRUE(watchdog.expired());
    EXPECT_EQ(tests::records.size(), 1U);
    EXPECT_EQ(watchdog.pollTimeout(7), 7) << "the next signal is due later, or never";
  }
}

/// A script that starts a child that ignores SIGTERM, writes its id and hangs.
std::string hangingScript(const TemporaryFolder& folder) {
  return writeScript(folder, "script",
                     "cd \"${0%/*}\"\n"
                     "sh -c 'trap \"\" TERM; echo $$ >new; mv new child; exec sleep 60' &\n"
                     "until [ -e child ]; do sleep 0.01; done; echo ready; wait");
}

TEST(RunToEnd, EndsGroupThatExceedsItsTime) {
  for (const unsigned graceMs : {0U, kLongMs}) {
    const TemporaryFolder folder;
    errno = ENOENT;
    EXPECT_EQ(runToEnd(hangingScript(folder), {}, 500, graceMs),
              128 + (graceMs == 0 ? SIGKILL : SIGTERM));
    EXPECT_EQ(errno, ETIMEDOUT);
    const pid_t child = std::stoi(readText(folder / "child"));
    EXPECT_TRUE(eventually([&] { return !isRunning(child); })) << "grace " << graceMs;
  }
}

TEST(RunToEnd, EndsProgramThatLeavesItsGroup) {
  const TemporaryFolder folder;
  const std::string script = writeScript(
      folder, "script", "exec perl -e 'setpgrp(0, getpgrp(getppid())) or exit 1; sleep 60'");
  EXPECT_EQ(runToEnd(script, {}, 500, 0), 128 + SIGKILL);
}

TEST(RunToEnd, SparesGroupOfCaller) {
  const TemporaryFolder folder;
  const std::string script = writeScript(folder, "script", "cut -d' ' -f5 /proc/$$/stat >\"$1\"");
  EXPECT_EQ(runToEnd(script, {folder / "group"}, kLongMs, 0), 0);
  EXPECT_NE(std::stoi(readText(folder / "group")), getpgrp());
}

TEST(RunToEnd, KeepsErrnoOfProgramThatEndsByItself) {
  errno = ENOENT;
  EXPECT_EQ(runToEnd("/bin/false", {}, kLongMs, 0), 1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(SysExecLimit, TimeoutReachesGrandchildThatIgnoresSignals) {
  const TemporaryFolder folder;
  std::string out;
  std::string err;
  errno = ENOENT;
  EXPECT_EQ(sysExec(hangingScript(folder), {}, "", out, err, 500, kLongMs, 1), 128 + SIGTERM);
  EXPECT_EQ(errno, ETIMEDOUT);
  const pid_t child = std::stoi(readText(folder / "child"));
  EXPECT_TRUE(eventually([&] { return !isRunning(child); }));
}

TEST(SysExecLimit, KeepsErrnoOfProgramThatEndsByItself) {
  std::string out;
  std::string err;
  errno = ENOENT;
  EXPECT_EQ(sysExec("/bin/cat", {}, "text", out, err, kLongMs, 0, 1), 0);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace kova::utils
