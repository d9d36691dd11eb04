#include "SystemLog.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>

#include "../../utils/tests/TemporaryFolder.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"
#include "kova/utils/UniqueFd.h"

namespace {

std::string socketPath;  // replaces /dev/log

struct OpenlogCall {
  std::string identity;
  int options = 0;
  int facility = 0;
} openlogCall;

std::uint64_t turnedMs = 1'000'000;
bool stalled = false;  // if set, poll() times out without waiting
int waitedMs = 0;      // total of timed-out waits

}  // namespace

namespace kova::utils {
std::uint64_t nowMs() {
  return turnedMs;
}
timeval now() {
  return {1'698'905'345, 0};
}
}  // namespace kova::utils

extern "C" {
int __real_connect(int fd, const sockaddr* address, socklen_t length);
int __wrap_connect(int fd, const sockaddr* address, socklen_t) {
  sockaddr_un own{};
  EXPECT_STREQ(reinterpret_cast<const sockaddr_un*>(address)->sun_path, "/dev/log");
  own.sun_family = AF_UNIX;
  std::strncpy(own.sun_path, socketPath.c_str(), sizeof own.sun_path - 1);
  return __real_connect(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own);
}

int __real_poll(pollfd* files, nfds_t count, int timeoutMs);
int __wrap_poll(pollfd* files, nfds_t count, int timeoutMs) {
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(files->events, POLLOUT);
  const int found = __real_poll(files, count, stalled ? 0 : timeoutMs);
  if (found == 0) {
    waitedMs += timeoutMs;
    turnedMs += static_cast<std::uint64_t>(timeoutMs);
  }
  return found;
}

void __wrap_openlog(const char* identity, int options, int facility) {
  openlogCall = {identity, options, facility};
}
}

namespace kova::logger {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

/// A fake syslogd that reads on demand.
class Syslogd {
 public:
  explicit Syslogd(int type = SOCK_DGRAM)
      : type_(type), fd_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
    sockaddr_un own{};
    own.sun_family = AF_UNIX;
    std::strncpy(own.sun_path, socketPath.c_str(), sizeof own.sun_path - 1);
    unlink(own.sun_path);
    EXPECT_EQ(bind(fd_.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
    if (type == SOCK_STREAM) {
      EXPECT_EQ(listen(fd_.get(), 5), 0);
    }
  }

  /// Reads the pending records.
  std::vector<std::string> read() {
    if (type_ == SOCK_STREAM && !peer_) {
      peer_ = utils::UniqueFd(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    std::vector<std::string> records;
    std::array<char, 65536> buffer;
    ssize_t got = 0;
    const int fd = type_ == SOCK_STREAM ? peer_.get() : fd_.get();
    while ((got = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0) {
      records.emplace_back(buffer.data(), static_cast<std::size_t>(got));
    }
    return records;
  }

 private:
  int type_;
  utils::UniqueFd fd_;
  utils::UniqueFd peer_;
};

/// The connection lasts as long as the process, so each test runs in its own.
class SystemLogTest : public testing::Test {
 protected:
  void SetUp() override {
    socketPath = folder_ / "log";
    setenv("TZ", "CET-1", 1);
    tzset();
  }

  template <typename Body>
  static void inProcess(Body body) {
    EXPECT_EXIT(
        {
          body();
          _exit(testing::Test::HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
  }

  static auto sendUntilFull() {
    for (int i = 0; i < 1000; ++i) {
      sendToSystemLog(LOG_ERR, "line " + std::to_string(i));
    }
  }

  static constexpr char kDate[] = "Nov  2 07:09:05 ";

  tests::TemporaryFolder folder_;
};

TEST_F(SystemLogTest, UnopenedLogUsesProgramIdentity) {
  inProcess([] {
    Syslogd syslogd;
    sendToSystemLog(LOG_WARNING, "text");
    EXPECT_THAT(syslogd.read(),
                ElementsAre(MatchesRegex(std::string("<12>") + kDate + "system_log_test: text")));
  });
}

TEST_F(SystemLogTest, OpenedLogHasIdentityProcessAndFacility) {
  inProcess([] {
    Syslogd syslogd;
    openSystemLog("ctl", LOG_PID, LOG_LOCAL0);
    EXPECT_EQ(openlogCall.identity, "ctl");
    EXPECT_EQ(openlogCall.options, LOG_PID);
    EXPECT_EQ(openlogCall.facility, LOG_LOCAL0);
    sendToSystemLog(LOG_ERR, "text");
    EXPECT_THAT(syslogd.read(), ElementsAre(MatchesRegex(std::string("<131>") + kDate + "ctl\\[" +
                                                         std::to_string(getpid()) + "\\]: text")));
  });
}

TEST_F(SystemLogTest, StalledLogBlocksUpTo200MsPerSecond) {
  inProcess([] {
    stalled = true;
    Syslogd syslogd;
    sendUntilFull();
    EXPECT_EQ(waitedMs, 200);
    turnedMs += 799;
    sendToSystemLog(LOG_ERR, "in the same second");
    EXPECT_EQ(waitedMs, 200);
    turnedMs += 1;
    sendToSystemLog(LOG_ERR, "a second later");
    EXPECT_EQ(waitedMs, 400);
    EXPECT_LT(syslogd.read().size(), 1000U);
  });
}

TEST_F(SystemLogTest, DroppedLinesAreCountedAfterStall) {
  inProcess([] {
    stalled = true;
    Syslogd syslogd;
    sendUntilFull();
    const std::size_t taken = syslogd.read().size();
    ASSERT_GT(taken, 0U);
    ASSERT_LT(taken, 1000U);
    sendToSystemLog(LOG_INFO, "next");
    sendToSystemLog(LOG_INFO, "last");
    const std::string count =
        "Dropped " + std::to_string(1000 - taken) + " lines that the system log did not take";
    EXPECT_THAT(syslogd.read(), ElementsAre(EndsWith(count), EndsWith("next"), EndsWith("last")));
  });
}

TEST_F(SystemLogTest, SlowLogLosesNothing) {
  inProcess([] {
    Syslogd syslogd;
    const pid_t child = fork();
    if (child == 0) {
      for (int i = 0; i < 100; ++i) {
        sendToSystemLog(LOG_ERR, "line " + std::to_string(i));
      }
      _exit(0);
    }
    std::size_t taken = 0;
    int status = -1;
    const auto drain = [&] {
      for (const auto& record : syslogd.read()) {
        EXPECT_THAT(record, EndsWith("line " + std::to_string(taken)));
        ++taken;
      }
    };
    while (waitpid(child, &status, WNOHANG) == 0) {
      drain();
    }
    drain();
    EXPECT_EQ(taken, 100U);
  });
}

TEST_F(SystemLogTest, RestartedLogIsFoundAgain) {
  inProcess([] {
    auto syslogd = std::make_optional<Syslogd>();
    sendToSystemLog(LOG_ERR, "first");
    EXPECT_EQ(syslogd->read().size(), 1U);
    syslogd.reset();
    sendToSystemLog(LOG_ERR, "nobody");
    syslogd.emplace();
    sendToSystemLog(LOG_ERR, "second");
    EXPECT_THAT(syslogd->read(), ElementsAre(HasSubstr("Dropped 1 lines"), EndsWith("second")));
  });
}

TEST_F(SystemLogTest, MissingLogIsIgnored) {
  inProcess([] {
    unlink(socketPath.c_str());
    sendToSystemLog(LOG_ERR, "nobody");
  });
}

TEST_F(SystemLogTest, StreamSocketGetsNulAfterEachRecord) {
  inProcess([] {
    Syslogd syslogd(SOCK_STREAM);
    sendToSystemLog(LOG_ERR, "first");
    sendToSystemLog(LOG_ERR, "second");
    const auto received = syslogd.read();
    ASSERT_EQ(received.size(), 1U);
    EXPECT_THAT(received[0], HasSubstr(std::string(": first\0<11>", 12)));
    EXPECT_THAT(received[0], EndsWith(std::string(": second\0", 9)));
  });
}

TEST_F(SystemLogTest, CountedRepetitionsAreWrittenAtExit) {
  Syslogd syslogd(SOCK_STREAM);  // buffers more unread lines than SOCK_DGRAM
  EXPECT_EXIT(
      {
        for (int i = 0; i < 17 + 3; ++i) {
          logInternal("kova_test", "Unit", "f", 1, LOG_ERR, 0, "again");
        }
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
  const auto records = syslogd.read();
  ASSERT_FALSE(records.empty());
  EXPECT_THAT(records.back(), HasSubstr("kova_test Unit.f:1: again ... repeated 3 times"));
}

}  // namespace
}  // namespace kova::logger
