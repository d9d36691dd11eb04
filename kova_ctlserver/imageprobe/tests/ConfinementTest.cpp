// What a compromised decoder can still do.

#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "ProbeFixture.h"

namespace kova::imageprobe {
namespace {

constexpr int kWorked = 0;
constexpr int kRefused = 1;
constexpr int kUnconfined = 3;
constexpr int kForbidden = 128 + SIGSYS;

class ConfinementTest : public ProbeFixture {
 protected:
  void SetUp() override {
    ProbeFixture::SetUp();
    // Open to every user, so that only the confinement can refuse access.
    ASSERT_EQ(chmod(folder_.path().c_str(), 0777), 0);
    write("content");
    ASSERT_EQ(chmod(file_.c_str(), 0666), 0);
  }

  Ended attempt(const std::string& act) const { return run({KOVA_CONFINED, act, file_}); }

  void expectAll(const std::vector<std::string>& acts, int status) const {
    for (const std::string& act : acts) {
      EXPECT_EQ(attempt(act).status, status) << act;
    }
  }

  /// Whether this user namespace maps users other than root (user_namespaces(7)).
  static bool thereIsANobody() {
    std::ifstream map("/proc/self/uid_map");
    unsigned long inside = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    map >> inside >> outside >> count;
    return inside + count > 65534;
  }

  void expectUnchanged() const {
    struct stat status {};
    ASSERT_EQ(stat(file_.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 7);
    EXPECT_EQ(status.st_mode & 0777U, 0666U);
    EXPECT_EQ(folder_.entries(), 1);
  }
};

TEST_F(ConfinementTest, PictureCanBeReadAndResultPrinted) {
  expectAll({"nothing", "read", "read-again", "look-at-flags"}, kWorked);
}

TEST_F(ConfinementTest, OtherFilesCannotBeRead) {
  expectAll({"read-another-file", "read-folder", "read-on-and-on"}, kRefused);
}

TEST_F(ConfinementTest, DescriptorOwnerSignalsAreRefused) {
  expectAll({"own", "own-thread", "choose-signal", "signal-on-output", "lease"}, kForbidden);
}

TEST_F(ConfinementTest, RootBecomesNobodyIfItExists) {
  const std::string who = std::to_string(geteuid() != 0 ? geteuid() : thereIsANobody() ? 65534 : 0);
  const std::string group = std::to_string(geteuid() != 0     ? getegid()
                                           : thereIsANobody() ? 65534
                                                              : 0);
  EXPECT_EQ(attempt("who-am-i").out, who + " " + who + " " + group + " " + group + "\n");
}

TEST_F(ConfinementTest, RootThatCannotDropIsUnconfined) {
  const std::string groups = "groups 0\n";
  const std::string group = groups + "group 65534 65534 65534\n";
  const std::string user = group + "user 65534 65534 65534\n";
  struct Case {
    std::array<int, 4> answers;  // user, setgroups(2), setresgid(2), setresuid(2)
    int status;
    std::string calls;
  };
  for (const Case& one : {Case{{1000, 0, 0, 0}, kWorked, ""},
                          {{0, 0, 0, 0}, kWorked, user},
                          {{0, EPERM, 0, 0}, kUnconfined, user},
                          {{0, 0, EPERM, 0}, kUnconfined, group},
                          {{0, 0, 0, EPERM}, kUnconfined, user},
                          {{0, EPERM, EINVAL, 0}, kWorked, group}}) {
    std::vector<std::string> words{KOVA_CONFINED, "nothing", file_};
    for (const int answer : one.answers) {
      words.push_back(std::to_string(answer));
    }
    SCOPED_TRACE(testing::PrintToString(words));
    const Ended result = run(words);
    EXPECT_EQ(result.status, one.status);
    EXPECT_EQ(result.out, one.calls);
  }
}

TEST_F(ConfinementTest, OrdinaryUserIsConfinedToo) {
  if (geteuid() != 0 || !thereIsANobody()) {
    GTEST_SKIP() << "there is no other user to become";
  }
  const auto asUser = [this](const char* act) {
    return run({"/usr/bin/setpriv", "--reuid=1000", "--regid=1000", "--clear-groups", KOVA_CONFINED,
                act, file_});
  };
  EXPECT_EQ(asUser("who-am-i").out, "1000 1000 1000 1000\n");
  EXPECT_EQ(asUser("read").status, kWorked);
  EXPECT_EQ(asUser("write").status, kForbidden);
  EXPECT_EQ(asUser("socket").status, kRefused);
  EXPECT_EQ(asUser("execute").status, kForbidden);
}

TEST_F(ConfinementTest, FilesCannotBeChanged) {
  expectAll({"write", "read-write", "create", "truncate-on-open", "truncate", "rename", "link",
             "chmod", "chown"},
            kForbidden);
  expectAll({"unlink", "mkdir"}, kRefused);
  expectUnchanged();
}

TEST_F(ConfinementTest, NetworkProcessesAndMountsAreOutOfReach) {
  expectAll({"socket", "local-socket"}, kRefused);
  expectAll({"socket-pair", "kill", "trace", "other-descriptor", "mount", "unshare"}, kForbidden);
}

TEST_F(ConfinementTest, ProgramsProcessesAndThreadsCannotBeStarted) {
  expectAll({"execute"}, kForbidden);
  expectAll({"fork", "thread"}, kRefused);
}

TEST_F(ConfinementTest, DroppedRightsCannotBeRegained) {
  expectAll({"become-root", "groups", "raise-limit"}, kForbidden);
  expectAll({"look-at-limits"}, kWorked);
}

TEST_F(ConfinementTest, MemoryEndsAt256Mebibytes) {
  EXPECT_EQ(attempt("memory").status, kRefused);
  EXPECT_EQ(attempt("shared-memory").status, kForbidden) << "no limit counts it";
}

// The timer counts clock ticks while cpuSeconds is exact, so the two differ slightly.
TEST_F(ConfinementTest, ProcessorTimeEndsAfterOneSecond) {
  const auto before = signal(SIGPROF, SIG_IGN);  // inherited by the child program
  const Ended result = attempt("spin");
  signal(SIGPROF, before);
  EXPECT_EQ(result.status, 128 + SIGPROF);
  EXPECT_GE(result.cpuSeconds, 0.5);
  EXPECT_LE(result.cpuSeconds, 1.6);
}

TEST_F(ConfinementTest, ProcessorTimeLimitHoldsIfSignalIsIgnored) {
  const Ended result = attempt("spin-unsignalled");
  EXPECT_EQ(result.status, 128 + SIGKILL);
  EXPECT_LE(result.cpuSeconds, 4);
}

}  // namespace
}  // namespace kova::imageprobe
