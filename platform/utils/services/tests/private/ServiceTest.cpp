#include "kova/utils/Service.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <thread>

#include "../../../process/tests/Processes.h"
#include "SyslogRecorder.h"
#include "kova/utils/Process.h"
#include "kova/utils/Strings.h"

namespace kova::utils {
namespace {

/// If set, called by every sleepMs(), which then only advances the clock. Otherwise the clock is
/// real.
std::function<void()> atWait;
std::uint64_t stoppedMs = 0;
std::uint64_t turnedMs = 0;

}  // namespace

// Replaces the functions of Clock.h.

std::uint64_t nowMs() {
  if (atWait) return stoppedMs + turnedMs;
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(time / std::chrono::milliseconds(1));
}

void sleepMs(int milliseconds) {
  if (!atWait) return std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  turnedMs += static_cast<std::uint64_t>(milliseconds);
  atWait();
}

timeval now() {
  timeval time{};
  gettimeofday(&time, nullptr);
  return time;
}

namespace {

using tests::eventually;
using tests::readText;
using tests::writeText;
namespace fs = std::filesystem;

/// Services in /etc/sv of this private root, and the supervisor of /etc/service.
class ServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories("/etc/sv");
    fs::create_directories("/etc/service");
    tests::records.clear();
  }

  void TearDown() override {
    if (supervisor_ > 0) {
      kill(supervisor_, SIGHUP);  // stops the services too, see runsvdir(8)
      waitpid(supervisor_, nullptr, 0);
      EXPECT_TRUE(eventually([] { return kill_process_by_name("runsv", 0) == 0; }));
    }
    fs::remove_all("/etc/service");
    fs::remove_all("/etc/sv");
  }

  void startSupervisor() {
    supervisor_ = fork();
    if (supervisor_ == 0) {
      execl("/usr/bin/runsvdir", "runsvdir", "/etc/service", nullptr);
      _exit(127);
    }
  }

  static void install(const std::string& name, const std::string& body = "exec sleep 600") {
    fs::create_directory("/etc/sv/" + name);
    const std::string run = "/etc/sv/" + name + "/run";
    writeText(run, "#!/bin/sh\n" + body + "\n");
    fs::permissions(run, fs::perms::owner_all);
  }

  static bool isMarked(const std::string& name) {
    return fs::is_symlink("/etc/service/" + name) &&
           fs::read_symlink("/etc/service/" + name) == "/etc/sv/" + name;
  }

  static std::string stateOf(const std::string& name) {
    return readText("/etc/sv/" + name + "/supervise/stat");
  }

  /// Expects exactly these lines since the last call.
  static void expectLines(const std::vector<std::string>& texts) {
    ASSERT_EQ(tests::records.size(), texts.size());
    for (std::size_t line = 0; line < texts.size(); ++line) {
      const std::string& logged = tests::records[line].text;
      EXPECT_NE(logged.find(texts[line]), std::string::npos) << logged;
    }
    tests::records.clear();
  }

  pid_t supervisor_ = -1;
};

TEST_F(ServiceTest, EnableStartsAndMarksDisableUndoesBoth) {
  install("lights");
  startSupervisor();
  ASSERT_TRUE(EnableService("lights"));
  EXPECT_TRUE(isMarked("lights"));
  EXPECT_EQ("run\n", stateOf("lights"));
  EXPECT_TRUE(EnableService("lights")) << "already enabled";

  const std::string pid = readText("/etc/sv/lights/supervise/pid");
  ASSERT_TRUE(DisableService("lights"));
  EXPECT_FALSE(fs::is_symlink("/etc/service/lights"));
  EXPECT_NE("run\n", stateOf("lights"));
  EXPECT_NE(0, kill(std::stoi(pid), 0)) << "the process still exists";
  EXPECT_TRUE(DisableService("lights")) << "already disabled";
}

TEST_F(ServiceTest, EnableWorksRightAfterDisable) {
  install("lights");
  startSupervisor();
  ASSERT_TRUE(EnableService("lights"));
  ASSERT_TRUE(DisableService("lights"));
  EXPECT_TRUE(EnableService("lights"));
  EXPECT_EQ("run\n", stateOf("lights"));
}

TEST_F(ServiceTest, EnableStartsServiceMarkedDown) {
  install("lights");
  writeText("/etc/sv/lights/down", "");
  fs::create_symlink("/etc/sv/lights", "/etc/service/lights");
  startSupervisor();
  errno = 0;  // only a failure sets it
  ASSERT_TRUE(EnableService("lights"));
  EXPECT_FALSE(fs::exists("/etc/sv/lights/down"));
  EXPECT_EQ("run\n", stateOf("lights"));
}

TEST_F(ServiceTest, InvalidNamesFailAtOnceAndLeaveNoMark) {
  install("lights");
  install(".hidden");
  writeText("/etc/sv/file", "");
  startSupervisor();
  const std::uint64_t before = nowMs();
  for (const std::string& name :
       {std::string("unknown"), std::string("file"), std::string(), std::string("."),
        std::string(".."), std::string(".hidden"), std::string("../sv/lights"),
        std::string("/etc/sv/lights"), std::string("lights/"), std::string("lights\0", 7),
        std::string(300, 'x')}) {
    EXPECT_FALSE(EnableService(name)) << name;
    EXPECT_FALSE(DisableService(name)) << name;
    const std::string line = format("There is no service \"%s\" in /etc/sv", name.c_str());
    expectLines({line, line});
  }
  EXPECT_LT(nowMs() - before, 2000U);
  EXPECT_TRUE(fs::is_empty("/etc/service"));
}

TEST_F(ServiceTest, EssentialServiceCannotBeDisabled) {
  startSupervisor();
  for (const char* name : {"kova_bus", "kova_ctlserver", "syslogd"}) {
    install(name);
    ASSERT_TRUE(EnableService(name)) << name;
    EXPECT_FALSE(DisableService(name)) << name;
    EXPECT_TRUE(isMarked(name)) << name;
    EXPECT_EQ("run\n", stateOf(name)) << name;
  }
}

TEST_F(ServiceTest, SystemdIsAskedWhereItRuns) {
  install("lights");
  startSupervisor();
  fs::create_directories("/run/systemd/system");
  EXPECT_FALSE(EnableService("lights"));
  EXPECT_FALSE(DisableService("lights"));
  EXPECT_FALSE(DisableService("../lights"));
  fs::remove("/run/systemd/system");
  expectLines({"Unable to reach systemd on the system bus",
               "Unable to reach systemd on the system bus",
               "There is no service \"../lights\" of systemd"});
  EXPECT_FALSE(isMarked("lights"));
}

TEST_F(ServiceTest, ServiceThatDoesNotStartFailsWithinBudget) {
  fs::create_directory("/etc/sv/broken");
  fs::create_symlink("/etc/sv/broken", "/etc/service/broken");
  startSupervisor();
  const std::uint64_t before = nowMs();
  EXPECT_FALSE(EnableService("broken"));
  EXPECT_LT(nowMs() - before, 10000U);
}

TEST_F(ServiceTest, ServiceThatEndsAtOnceFails) {
  install("fickle", "exit 1");
  fs::create_symlink("/etc/sv/fickle", "/etc/service/fickle");
  startSupervisor();
  EXPECT_FALSE(EnableService("fickle"));
}

TEST_F(ServiceTest, ServiceThatDoesNotStopFailsWithinBudget) {
  install("stubborn", "trap '' TERM; while :; do sleep 1; done");
  fs::create_symlink("/etc/sv/stubborn", "/etc/service/stubborn");
  startSupervisor();
  ASSERT_TRUE(EnableService("stubborn"));
  const std::string pid = readText("/etc/sv/stubborn/supervise/pid");
  const std::string status = "/proc/" + std::string(pid, 0, pid.find('\n')) + "/status";
  ASSERT_TRUE(eventually(
      [&] { return readText(status).find("SigIgn:\t0000000000004000") != std::string::npos; }));
  const std::uint64_t before = nowMs();
  EXPECT_FALSE(DisableService("stubborn"));
  EXPECT_LT(nowMs() - before, 10000U);
  EXPECT_TRUE(isMarked("stubborn"));
  kill(std::stoi(pid), SIGKILL);
}

TEST_F(ServiceTest, EssentialServiceCannotBeDisabledByLink) {
  for (const char* name : {"syslogd", "other", "link", "lights"}) install(name);
  fs::create_symlink("syslogd", "/etc/sv/alias");
  fs::create_symlink("/etc/sv/syslogd", "/etc/service/link");
  EXPECT_FALSE(DisableService("alias"));
  EXPECT_FALSE(DisableService("link"));
  fs::remove("/etc/service/link");
  fs::create_symlink("/etc/sv/other", "/etc/service/syslogd");
  fs::create_symlink("/etc/sv/other", "/etc/service/link");
  EXPECT_FALSE(DisableService("link"));
  expectLines({"Refused to stop ", "Refused to stop ", "Refused to stop "});
  EXPECT_TRUE(DisableService("lights"));
}

TEST_F(ServiceTest, MarkThatCannotBeChangedFails) {
  install("lights");
  fs::create_directory("/etc/sv/lights/down");
  EXPECT_FALSE(EnableService("lights"));
  expectLines({"Cannot mark lights to be started"});
  fs::remove("/etc/sv/lights/down");
  fs::create_directory("/etc/service/lights");
  EXPECT_FALSE(DisableService("lights"));
  expectLines({"Cannot unmark lights"});
  fs::remove_all("/etc/service");
  EXPECT_FALSE(EnableService("lights"));
  expectLines({"Cannot mark lights to be started"});
}

/// Fakes the supervisor of a service, and sv(8).
class SvTest : public ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    install("lights");
    fs::create_directory("/etc/sv/lights/supervise");
    fs::create_symlink("/etc/sv/lights", "/etc/service/lights");
    supervise();
    writeText("/etc/sv/sv", "#!/bin/sh\n");
    fs::permissions("/etc/sv/sv", fs::perms::owner_all);
    ASSERT_EQ(0, mount("/etc/sv/sv", "/usr/bin/sv", nullptr, MS_BIND, nullptr));
    stoppedMs = nowMs();
    atWait = [] {};
  }
  void TearDown() override {
    atWait = nullptr;
    umount2("/usr/bin/sv", MNT_DETACH);
    ServiceTest::TearDown();
  }

  static void supervise() {
    writeText("/etc/sv/lights/supervise/ok", "");
    writeText("/etc/sv/lights/supervise/pid", "7\n");
  }
  /// Sets the script that replaces sv(8).
  static void sv(const std::string& body) {
    fs::remove("/etc/sv/calls");
    writeText("/etc/sv/sv", "#!/bin/sh\necho \"$@\" >>/etc/sv/calls\n" + body + "\n");
  }
  static std::string calls() { return readText("/etc/sv/calls"); }
};

constexpr char kStart[] = "-w 7 start /etc/service/lights\n";

TEST_F(SvTest, StartedServiceKeepsItsProcess) {
  const std::string pid = "/etc/sv/lights/supervise/pid";
  sv("");
  EXPECT_TRUE(EnableService("lights"));
  EXPECT_EQ(calls(), kStart);
  EXPECT_TRUE(tests::records.empty());
  for (const auto& change : std::vector<std::function<void()>>{[&] { writeText(pid, "8\n"); },
                                                               [&] { fs::remove(pid); }}) {
    writeText(pid, "7\n");
    atWait = change;
    EXPECT_FALSE(EnableService("lights"));
    expectLines({"lights ended as soon as it was started"});
  }
  EXPECT_FALSE(EnableService("lights")) << "no process";
  expectLines({"lights ended as soon as it was started"});
  writeText(pid, "");
  atWait = [] {};
  EXPECT_FALSE(EnableService("lights")) << "no process";
  expectLines({"lights ended as soon as it was started"});
}

TEST_F(SvTest, FailedStartIsNotRepeated) {
  sv("exit 1");
  EXPECT_FALSE(EnableService("lights"));
  EXPECT_EQ(calls(), kStart);
  expectLines({"sv start /etc/service/lights failed: "});
}

TEST_F(SvTest, FailedStopIsLoggedWithFirstFourKibibytes) {
  sv("echo; head -c 6000 /dev/zero | tr '\\0' x; echo why >&2; exit 1");
  EXPECT_FALSE(DisableService("lights"));
  EXPECT_EQ(calls(), "-w 7 stop /etc/service/lights\n");
  expectLines({" failed: " + std::string(4095, 'x') + "why"});
  EXPECT_TRUE(isMarked("lights"));
}

// runsvdir(8) ends the supervisor after a request to stop has removed the link.
TEST_F(SvTest, StartIsRepeatedIfSupervisorEndsUnderIt) {
  for (const char* status : {"0", "1"}) {
    sv("cd /etc/sv/lights; test -e ended || { touch ended; rm supervise/*; exit " +
       std::string(status) + "; }");
    atWait = supervise;
    EXPECT_TRUE(EnableService("lights")) << status;
    EXPECT_EQ(calls(), std::string(kStart) + kStart);
    fs::remove("/etc/sv/lights/ended");
  }
}

TEST_F(SvTest, SupervisorThatEndsAtDeadlineIsNotAwaited) {
  sv("");
  atWait = [] {
    turnedMs += 8000;
    fs::remove_all("/etc/sv/lights/supervise");
  };
  EXPECT_FALSE(EnableService("lights"));
  EXPECT_EQ(calls(), kStart);
  expectLines({"lights ended as soon as it was started"});
}

TEST_F(SvTest, LateSupervisorLeavesSecondToStart) {
  sv("");
  fs::remove("/etc/sv/lights/supervise/ok");
  atWait = [] {
    turnedMs += 7500;
    supervise();
  };
  EXPECT_TRUE(EnableService("lights"));
  EXPECT_EQ(calls(), "-w 1 start /etc/service/lights\n");
}

TEST_F(SvTest, EnableFailsWithinBudgetWithoutSupervisor) {
  int waits = 0;
  atWait = [&waits] { ++waits; };
  fs::remove("/etc/sv/lights/supervise/ok");
  const std::uint64_t before = nowMs();
  EXPECT_FALSE(EnableService("lights"));
  EXPECT_LT(nowMs() - before, 10000U);
  EXPECT_GT(waits, 100);
  expectLines({"No supervisor took up lights"});
  EXPECT_TRUE(DisableService("lights"));
  EXPECT_FALSE(fs::is_symlink("/etc/service/lights"));
}

}  // namespace
}  // namespace kova::utils
