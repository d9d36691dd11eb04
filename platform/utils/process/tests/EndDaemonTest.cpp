#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <vector>

#include "Processes.h"
#include "Script.h"
#include "Spawn.h"
#include "Supervisor.h"
#include "SyslogRecorder.h"
#include "kova/utils/Process.h"

namespace kova::utils {
namespace {

using tests::eventually;
using tests::isRunning;
using tests::openDescriptors;
using tests::TemporaryFolder;
using tests::writeScript;

class EndDaemonTest : public testing::Test {
 protected:
  ~EndDaemonTest() override { endDaemon(script()); }

  std::string script() const { return folder_ / "script"; }
  /// Starts a script with its folder as the first argument and waits for its `ready` file.
  bool start(const std::string& body) {
    writeScript(folder_, "script", body);
    return runDaemon(nullptr, nullptr, nullptr, script(), 1, folder_.path().c_str()) &&
           eventually([&] { return !numbersIn("ready").empty(); });
  }
  /// Starts a script that writes what `command` prints, and then sleeps.
  bool startTelling(const std::string& command) {
    return start(command + " >\"$1/new\"; mv \"$1/new\" \"$1/ready\"; exec sleep 60");
  }
  std::vector<pid_t> numbersIn(const std::string& name) const {
    std::ifstream file(folder_ / name);
    return {std::istream_iterator<pid_t>(file), {}};
  }

  /// Whether a program ends when the process that started it is killed. `prepare` runs in that
  /// process first.
  template <typename Prepare>
  bool endsWithItsOwner(Prepare prepare) {
    const pid_t owner = fork();
    if (owner == 0) {
      prepare();
      startTelling("echo $$");
      pause();
    }
    EXPECT_TRUE(eventually([&] { return !numbersIn("ready").empty(); }));
    const pid_t program = numbersIn("ready").at(0);
    EXPECT_TRUE(isRunning(program));
    kill(owner, SIGKILL);
    waitpid(owner, nullptr, 0);
    const bool ended = eventually([&] { return !isRunning(program); });
    if (!ended) kill(program, SIGKILL);
    return ended;
  }

  TemporaryFolder folder_;
};

TEST_F(EndDaemonTest, EndsProgramAndItsDescendants) {
  // A background process, one in its own session and an orphan, all of which ignore SIGTERM.
  ASSERT_TRUE(
      start("trap '' TERM HUP\ncd \"$1\"\n"
            "sleep 60 & a=$!\n"
            "setsid sleep 60 & b=$!\n"
            "(setsid sh -c 'echo $$ >left; exec sleep 60' &)\n"
            "until [ -s left ]; do sleep 0.01; done\n"
            "echo $$ $a $b $(cat left) >new; mv new ready\nwait"));
  const std::vector<pid_t> all = numbersIn("ready");
  ASSERT_EQ(all.size(), 4U);
  for (const pid_t pid : all) EXPECT_TRUE(isRunning(pid)) << pid;
  const std::uint64_t before = nowMs();
  tests::records.clear();
  endDaemon(script());
  EXPECT_LT(nowMs() - before, 1500U);
  for (const pid_t pid : all) EXPECT_FALSE(isRunning(pid)) << pid;
  ASSERT_EQ(tests::records.size(), 1U);
  EXPECT_TRUE(tests::records[0].text.ends_with("script was still running and was ended"));
}

TEST_F(EndDaemonTest, EndsDescendantsOfEndedProgram) {
  ASSERT_TRUE(start("cd \"$1\"; sleep 60 & echo $! $$ >new; mv new ready"));
  const pid_t left = numbersIn("ready").at(0);
  const std::string program = "/proc/" + std::to_string(numbersIn("ready").at(1));
  ASSERT_TRUE(eventually([&] { return !std::filesystem::exists(program); }));
  endDaemon(script());
  EXPECT_FALSE(isRunning(left));
}

TEST_F(EndDaemonTest, SparesOtherPrograms) {
  ASSERT_TRUE(startTelling("echo $$"));
  endDaemon("/bin/sleep");
  EXPECT_TRUE(isRunning(numbersIn("ready").at(0)));
}

TEST_F(EndDaemonTest, EndedProgramsLeaveNoDescriptors) {
  const long before = openDescriptors();
  tests::records.clear();
  const auto start = [] { return runDaemon(nullptr, nullptr, nullptr, "/bin/true", 0); };
  for (int i = 0; i < 50; ++i) ASSERT_TRUE(start());
  EXPECT_TRUE(eventually([&] { return start() && openDescriptors() <= before + 2; }));
  EXPECT_TRUE(tests::records.empty());
  endDaemon("/bin/true");
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(EndDaemonTest, ProgramsEndWithStartingProcess) {
  EXPECT_TRUE(endsWithItsOwner([] {}));
}

TEST_F(EndDaemonTest, ProgramsEndWithOwnerWithoutStandardStreams) {
  EXPECT_TRUE(endsWithItsOwner([] { closefrom(0); }));
}

TEST_F(EndDaemonTest, ProgramHasNoSocketToItsSupervisor) {
  ASSERT_TRUE(startTelling("ls -l /proc/$$/fd | grep -c socket:"));
  EXPECT_EQ(numbersIn("ready"), std::vector<pid_t>{0});
  endDaemon(script());
}

TEST_F(EndDaemonTest, LeashEndsProgramAfterItsTime) {
  Spawn spawn("/bin/sleep", {"60"}, {});
  spawn.ownSession();
  Leash leash;
  pid_t pid = -1;
  const std::uint64_t before = nowMs();
  ASSERT_EQ(leash.start(spawn, 200, &pid), 0);
  EXPECT_TRUE(eventually([&] { return !leash.holds(); }));
  EXPECT_GE(nowMs() - before, 200U);
  EXPECT_FALSE(isRunning(pid));
  leash.letGo();
  EXPECT_TRUE(leash.expired());
}

TEST_F(EndDaemonTest, LeashIsReleasedWithProgram) {
  Spawn spawn("/bin/true", {}, {});
  Leash leash;
  pid_t pid = -1;
  const auto previous = signal(SIGCHLD, SIG_IGN);  // inherited by child processes
  EXPECT_EQ(leash.start(spawn, 60'000, &pid), 0);
  signal(SIGCHLD, previous);
  EXPECT_TRUE(eventually([&] { return !leash.holds(); }));
  leash.letGo();
  EXPECT_FALSE(leash.expired());
}

TEST_F(EndDaemonTest, SupervisorOutlivesSignalToOwner) {
  ASSERT_TRUE(startTelling("echo $PPID"));
  const pid_t supervisor = numbersIn("ready").at(0);
  kill(supervisor, SIGTERM);
  kill(supervisor, SIGHUP);
  sleepMs(50);
  EXPECT_TRUE(isRunning(supervisor));
  EXPECT_EQ(tests::readText("/proc/" + std::to_string(supervisor) + "/comm"), "kova_supervisor\n");
  EXPECT_EQ(tests::entriesOf("/proc/" + std::to_string(supervisor) + "/fd"), 2)
      << "a socket and a signalfd";
  endDaemon(script());
  EXPECT_TRUE(eventually([&] { return !isRunning(supervisor); }));
}

TEST_F(EndDaemonTest, HungSupervisorBlocksBriefly) {
  ASSERT_TRUE(startTelling("echo $PPID"));
  const pid_t supervisor = numbersIn("ready").at(0);
  kill(supervisor, SIGSTOP);
  const std::uint64_t before = nowMs();
  endDaemon(script());
  EXPECT_GE(nowMs() - before, 2000U);
  EXPECT_LT(nowMs() - before, 8000U);
  kill(supervisor, SIGCONT);
  EXPECT_TRUE(eventually([&] { return !isRunning(supervisor); }));
}

}  // namespace
}  // namespace kova::utils
