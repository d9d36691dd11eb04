#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "DescriptorLimit.h"
#include "Processes.h"
#include "Script.h"
#include "kova/utils/Process.h"

namespace kova::utils {
namespace {

using tests::eventually;
using tests::isRunning;
using tests::readText;
using tests::TemporaryFolder;
using tests::writeScript;

/// A started program, killed by the end of the test.
class Daemon {
 public:
  explicit Daemon(pid_t pid) : pid_(pid) {}
  /// Starts sleep(1) or a copy of it.
  explicit Daemon(const std::string& program, const std::string* folder = nullptr,
                  const sigset_t* mask = nullptr) {
    EXPECT_TRUE(runDaemon(folder, mask, &pid_, program, 1, "60"));
  }
  ~Daemon() {
    if (pid_ > 0) kill(pid_, SIGKILL);
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

TEST(RunDaemon, StartsProgramWithArgumentsWithoutWaiting) {
  const TemporaryFolder folder;
  const std::string script = writeScript(folder, "script",
                                         "printf '[%s]' \"$@\" > \"$1.new\"; mv \"$1.new\" \"$1\"; "
                                         "exec sleep 60");
  const std::string result = folder / "result";
  int pid = 0;
  ASSERT_TRUE(runDaemon(nullptr, nullptr, &pid, script, 3, result.c_str(), "a b", "$(id)"));
  const Daemon daemon(pid);
  EXPECT_TRUE(eventually([&] { return readText(result) != "(none)"; }));
  EXPECT_EQ("[" + result + "][a b][$(id)]", readText(result));
  EXPECT_TRUE(eventually([&] { return isRunning(pid); }));
}

TEST(RunDaemon, LeavesNoZombieAndNoChild) {
  int pid = 0;
  ASSERT_TRUE(runDaemon(nullptr, nullptr, &pid, "/bin/true", 0));
  errno = 0;
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
  // A zombie counts as ended: in a container, process 1 may not reap it.
  EXPECT_TRUE(eventually([&] { return !isRunning(pid); }));
}

TEST(RunDaemon, LeadsItsOwnSession) {
  const Daemon daemon("/bin/sleep");
  EXPECT_EQ(daemon.pid(), getsid(daemon.pid()));
  EXPECT_NE(getsid(0), getsid(daemon.pid()));
}

TEST(RunDaemon, StartsInGivenFolder) {
  const TemporaryFolder folder;
  const Daemon daemon("/bin/sleep", &folder.path());
  EXPECT_EQ(std::filesystem::canonical(folder.path()),
            std::filesystem::read_symlink("/proc/" + std::to_string(daemon.pid()) + "/cwd"));
}

TEST(RunDaemon, BlocksOnlyGivenSignals) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGHUP);
  for (const sigset_t* given :
       {static_cast<const sigset_t*>(&mask), static_cast<const sigset_t*>(nullptr)}) {
    const Daemon daemon("/bin/sleep", nullptr, given);
    EXPECT_THAT(readText("/proc/" + std::to_string(daemon.pid()) + "/status"),
                testing::HasSubstr(given != nullptr ? "SigBlk:\t0000000000000001\n"
                                                    : "SigBlk:\t0000000000000000\n"));
  }
}

TEST(RunDaemon, ReportsProgramThatCannotStart) {
  const TemporaryFolder folder;
  int pid = 77;
  EXPECT_FALSE(runDaemon(nullptr, nullptr, &pid, folder / "missing", 0));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(77, pid);
  tests::writeText(folder / "plain", "text");
  EXPECT_FALSE(runDaemon(nullptr, nullptr, &pid, folder / "plain", 0));
  EXPECT_EQ(EACCES, errno);
  const std::string nowhere = folder / "nowhere";
  EXPECT_FALSE(runDaemon(&nowhere, nullptr, &pid, "/bin/true", 0));
  EXPECT_EQ(ENOENT, errno);
}

class KillByNameTest : public testing::Test {
 protected:
  /// A copy of a real program under a unique name.
  std::string programNamed(const std::string& name) const {
    std::string path = folder_ / name;
    std::filesystem::copy_file("/bin/sleep", path);
    return path;
  }

  TemporaryFolder folder_;
  const std::string unique_ = std::filesystem::path(folder_.path()).filename().string() + "_daemon";
};

TEST_F(KillByNameTest, SignalsEveryProcessOfLongName) {
  ASSERT_GT(unique_.size(), 15U);
  const std::string program = programNamed(unique_);
  const Daemon first(program);
  const Daemon second(program);
  EXPECT_EQ(2, kill_process_by_name(unique_, SIGTERM));
  EXPECT_TRUE(eventually([&] { return !isRunning(first.pid()) && !isRunning(second.pid()); }));
  EXPECT_TRUE(eventually([&] { return kill_process_by_name(unique_, 0) == 0; }));
}

TEST_F(KillByNameTest, ComparesWholeNames) {
  const Daemon daemon(programNamed(unique_));
  EXPECT_EQ(0, kill_process_by_name(unique_.substr(0, 15), SIGTERM));
  EXPECT_EQ(0, kill_process_by_name(unique_ + "x", SIGTERM));
  EXPECT_EQ(0, kill_process_by_name(folder_ / unique_, SIGTERM));
  EXPECT_EQ(0, kill_process_by_name("", SIGTERM));
  EXPECT_EQ(1, kill_process_by_name(unique_, 0));
}

TEST_F(KillByNameTest, FindsProgramThatRenamedItself) {
  const std::string program = programNamed(unique_);
  int pid = -1;
  ASSERT_TRUE(runDaemon(nullptr, nullptr, &pid, "/bin/bash", 2, "-c",
                        ("exec -a other/" + unique_ + "_too " + program + " 60").c_str()));
  const Daemon daemon(pid);
  ASSERT_TRUE(eventually(
      [&] { return readText("/proc/" + std::to_string(pid) + "/cmdline").starts_with("other"); }));
  EXPECT_EQ(1, kill_process_by_name(unique_, 0));
  EXPECT_EQ(1, kill_process_by_name(unique_ + "_too", 0));
  const tests::DescriptorLimit none;
  EXPECT_EQ(0, kill_process_by_name(unique_, 0)) << "no descriptor left to read /proc";
}

TEST_F(KillByNameTest, FindsProgramWithDeletedFile) {
  const std::string program = programNamed(unique_);
  const Daemon daemon(program);
  std::filesystem::remove(program);
  EXPECT_EQ(1, kill_process_by_name(unique_, 0));
}

TEST_F(KillByNameTest, SkipsZombies) {
  const std::string program = programNamed(unique_);
  const pid_t child = fork();
  if (child == 0) {
    execl(program.c_str(), program.c_str(), "0", nullptr);
    _exit(1);
  }
  siginfo_t ended{};
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT));
  EXPECT_EQ(0, kill_process_by_name(unique_, SIGTERM));
  waitpid(child, nullptr, 0);
}

TEST_F(KillByNameTest, SparesCaller) {
  const std::string name = "k" + std::to_string(getpid());
  ASSERT_LE(name.size(), std::strlen(program_invocation_name));
  const pid_t child = fork();
  if (child == 0) {
    // argv[0] is in the memory of the process, see proc(5).
    std::memcpy(program_invocation_name, name.c_str(), name.size() + 1);
    if (!readText("/proc/self/cmdline").starts_with(name + '\0')) _exit(100);
    _exit(kill_process_by_name(name, SIGKILL));
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace kova::utils
