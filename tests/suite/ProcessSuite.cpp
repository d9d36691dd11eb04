#include "Rig.h"
#include "kova/utils/Process.h"

namespace kova::suite {
namespace {

using utils::endDaemon;
using utils::runDaemon;
using utils::sysExec;
using utils::sysExecSimple;

class ProcessSuite : public PlatformSuite {
 protected:
  int run(const std::string& program, const std::vector<std::string>& arguments,
          unsigned captureKiB) {
    return sysExec(program, arguments, "", out_, err_, 10'000, 1'000, captureKiB);
  }

  std::string out_ = "before";
  std::string err_ = "before";
};

TEST_F(ProcessSuite, ExitStatusIsReported) {
  EXPECT_EQ(sysExecSimple("/bin/true"), 0);
  EXPECT_EQ(sysExecSimple("/bin/false"), 1);
  EXPECT_EQ(run("/bin/true", {}, 1), 0);
  EXPECT_EQ(run("/bin/false", {}, 1), 1);
}

TEST_F(ProcessSuite, StandardOutputIsCaptured) {
  EXPECT_EQ(run("/bin/echo", {"one ", "two"}, 1), 0);
  EXPECT_EQ(out_, "one  two\n");
  EXPECT_EQ(err_, "");
}

TEST_F(ProcessSuite, StandardErrorIsCapturedSeparately) {
  EXPECT_EQ(run("/bin/sh", {"-c", "echo lost >&2; exit 7"}, 1), 7);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(err_, "lost\n");
}

TEST_F(ProcessSuite, CaptureHonoursItsLimit) {
  EXPECT_EQ(run("/usr/bin/seq", {"1000"}, 1), 0);
  EXPECT_EQ(out_.size(), 1024U);
  EXPECT_TRUE(out_.starts_with("1\n2\n3\n"));
  EXPECT_EQ(run("/usr/bin/seq", {"1000"}, 64), 0);
  EXPECT_TRUE(out_.ends_with("\n1000\n"));
}

TEST_F(ProcessSuite, BackgroundProgramGetsId) {
  int pid = 0;
  EXPECT_TRUE(runDaemon(nullptr, nullptr, &pid, "/bin/true", 0));
  EXPECT_GT(pid, 0);
  EXPECT_TRUE(runDaemon(nullptr, nullptr, nullptr, "/bin/echo", 2, "one ", "two"));
}

TEST_F(ProcessSuite, BackgroundProgramsAreEndedByName) {
  int first = 0;
  int second = 0;
  int other = 0;
  ASSERT_TRUE(runDaemon(nullptr, nullptr, &first, "/bin/sleep", 1, "60"));
  ASSERT_TRUE(runDaemon(nullptr, nullptr, &second, "/bin/sleep", 1, "60"));
  ASSERT_TRUE(runDaemon(nullptr, nullptr, &other, "/usr/bin/tail", 2, "-f", "/dev/null"));
  EXPECT_NE(first, second);
  EXPECT_TRUE(isRunning(first) && isRunning(second));
  endDaemon("/bin/sleep");
  EXPECT_FALSE(isRunning(first) || isRunning(second));
  EXPECT_TRUE(isRunning(other));
  endDaemon("/bin/sleep");
  endDaemon("/usr/bin/tail");
  EXPECT_FALSE(isRunning(other));
}

}  // namespace
}  // namespace kova::suite
