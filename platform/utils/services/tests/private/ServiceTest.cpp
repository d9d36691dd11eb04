#include "kova/utils/Service.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "SyslogRecorder.h"
#include "TemporaryFolder.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Process.h"

namespace kova::utils {
namespace {

using tests::readText;
using tests::writeText;
namespace fs = std::filesystem;

/// Services in /etc/sv of this private root, and the supervisor of /etc/service.
class ServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories("/etc/sv");
    fs::create_directories("/etc/service");
  }

  void TearDown() override {
    if (supervisor_ > 0) {
      kill(supervisor_, SIGHUP);  // stops the services too, see runsvdir(8)
      waitpid(supervisor_, nullptr, 0);
      const std::uint64_t deadline = nowMs() + 10000;
      while (kill_process_by_name("runsv", 0) > 0 && nowMs() < deadline) sleepMs(5);
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

  static std::string State(const std::string& name) {
    return readText("/etc/sv/" + name + "/supervise/stat");
  }

  pid_t supervisor_ = -1;
};

TEST_F(ServiceTest, EnableStartsAndMarksDisableUndoesBoth) {
  install("lights");
  startSupervisor();
  ASSERT_TRUE(EnableService("lights"));
  EXPECT_TRUE(isMarked("lights"));
  EXPECT_EQ("run\n", State("lights"));
  EXPECT_TRUE(EnableService("lights")) << "already enabled";

  const std::string pid = readText("/etc/sv/lights/supervise/pid");
  ASSERT_TRUE(DisableService("lights"));
  EXPECT_FALSE(fs::is_symlink("/etc/service/lights"));
  EXPECT_NE("run\n", State("lights"));
  EXPECT_NE(0, kill(std::stoi(pid), 0)) << "the process is still there";
  EXPECT_TRUE(DisableService("lights")) << "already disabled";
}

TEST_F(ServiceTest, EnableWorksRightAfterDisable) {
  install("lights");
  startSupervisor();
  ASSERT_TRUE(EnableService("lights"));
  ASSERT_TRUE(DisableService("lights"));
  EXPECT_TRUE(EnableService("lights"));
  EXPECT_EQ("run\n", State("lights"));
}

TEST_F(ServiceTest, EnableStartsServiceMarkedDown) {
  install("lights");
  writeText("/etc/sv/lights/down", "");
  fs::create_symlink("/etc/sv/lights", "/etc/service/lights");
  startSupervisor();
  ASSERT_TRUE(EnableService("lights"));
  EXPECT_FALSE(fs::exists("/etc/sv/lights/down"));
  EXPECT_EQ("run\n", State("lights"));
}

TEST_F(ServiceTest, LogsFirstFourKibibytesOfFailedSv) {
  install("lights");
  startSupervisor();
  ASSERT_TRUE(EnableService("lights"));
  writeText("/etc/sv/sv", "#!/bin/sh\nhead -c 6000 /dev/zero | tr '\\0' x\nexit 1\n");
  fs::permissions("/etc/sv/sv", fs::perms::owner_all);
  ASSERT_EQ(0, mount("/etc/sv/sv", "/usr/bin/sv", nullptr, MS_BIND, nullptr));
  tests::records.clear();
  const bool disabled = DisableService("lights");
  ASSERT_EQ(0, umount2("/usr/bin/sv", MNT_DETACH));
  EXPECT_FALSE(disabled);
  ASSERT_FALSE(tests::records.empty());
  const std::string& text = tests::records.front().text;
  EXPECT_EQ(std::string(4096, 'x'), text.substr(text.find(": ", text.find("failed")) + 2));
  EXPECT_TRUE(DisableService("lights"));
}

TEST_F(ServiceTest, InvalidNamesFailAtOnceAndLeaveNoMark) {
  install("lights");
  install(".hidden");
  startSupervisor();
  const std::uint64_t before = nowMs();
  for (const std::string& name :
       {std::string("unknown"), std::string(), std::string("."), std::string(".."),
        std::string(".hidden"), std::string("../sv/lights"), std::string("/etc/sv/lights"),
        std::string("lights/"), std::string("lights\0", 7), std::string(300, 'x')}) {
    EXPECT_FALSE(EnableService(name)) << name;
    EXPECT_FALSE(DisableService(name)) << name;
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
    EXPECT_EQ("run\n", State(name)) << name;
  }
}

TEST_F(ServiceTest, EssentialServiceCannotBeDisabledByAlias) {
  install("syslogd");
  startSupervisor();
  ASSERT_TRUE(EnableService("syslogd"));
  fs::create_symlink("syslogd", "/etc/sv/definition");
  install("mark");
  fs::create_symlink("/etc/sv/syslogd", "/etc/service/mark");
  for (const char* name : {"definition", "mark"}) {
    EXPECT_FALSE(DisableService(name)) << name;
  }
  EXPECT_TRUE(isMarked("syslogd"));
  EXPECT_EQ("run\n", State("syslogd"));
}

TEST_F(ServiceTest, UnknownNamesAreLogged) {
  kova::tests::records.clear();
  EXPECT_FALSE(EnableService("unknown"));
  EXPECT_FALSE(DisableService("../lights"));
  ASSERT_EQ(kova::tests::records.size(), 2U);
  EXPECT_NE(kova::tests::records[0].text.find("There is no service \"unknown\" in /etc/sv"),
            std::string::npos);
  EXPECT_NE(kova::tests::records[1].text.find("There is no service \"../lights\" in /etc/sv"),
            std::string::npos);
}

TEST_F(ServiceTest, SystemdIsAskedWhereItRuns) {
  install("lights");
  startSupervisor();
  fs::create_directories("/run/systemd/system");
  tests::records.clear();
  EXPECT_FALSE(EnableService("lights"));
  EXPECT_FALSE(DisableService("lights"));
  EXPECT_FALSE(DisableService("../lights"));
  fs::remove("/run/systemd/system");
  ASSERT_EQ(tests::records.size(), 3U);
  for (const int line : {0, 1}) {
    EXPECT_NE(tests::records[line].text.find("Unable to reach systemd on the system bus"),
              std::string::npos);
  }
  EXPECT_NE(tests::records[2].text.find("There is no service \"../lights\" of systemd"),
            std::string::npos);
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
  const std::uint64_t deadline = nowMs() + 10000;
  while (readText("/proc/" + std::string(pid, 0, pid.find('\n')) + "/status")
                 .find("SigIgn:\t0000000000004000") == std::string::npos &&
         nowMs() < deadline) {
    sleepMs(5);
  }
  const std::uint64_t before = nowMs();
  EXPECT_FALSE(DisableService("stubborn"));
  EXPECT_LT(nowMs() - before, 10000U);
  EXPECT_TRUE(isMarked("stubborn"));
  kill(std::stoi(pid), SIGKILL);
}

TEST_F(ServiceTest, EnableFailsWithinBudgetWithoutSupervisor) {
  install("lights");
  const std::uint64_t before = nowMs();
  EXPECT_FALSE(EnableService("lights"));
  EXPECT_LT(nowMs() - before, 10000U);
  EXPECT_TRUE(DisableService("lights"));
  EXPECT_FALSE(fs::is_symlink("/etc/service/lights"));
}

}  // namespace
}  // namespace kova::utils
