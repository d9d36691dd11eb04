#include "kova/utils/ServiceManager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <vector>

#include "SyslogRecorder.h"
#include "TemporaryFolder.h"
#include "kova/utils/Clock.h"
#include "kova/utils/Process.h"
#include "kova/utils/UniqueFd.h"

namespace kova::utils {
namespace {

/// Plays systemd: owns the socket and starts the notifying process.
class ServiceManagerTest : public testing::Test {
 protected:
  using Variables = std::map<std::string, std::string>;

  void SetUp() override { listen(path()); }

  static sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path.front() == '@') {
      address.sun_path[0] = '\0';
    }
    return address;
  }
  void listen(const std::string& path) {
    const sockaddr_un address = addressOf(path);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    socket_ = UniqueFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ASSERT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
  }

  // The notifications sent by `act` in a process with these variables.
  std::vector<std::string> notifications(const Variables& variables,
                                         const std::function<void()>& act) {
    const pid_t child = fork();
    if (child == 0) {
      for (const auto& [name, value] : variables) {
        setenv(name.c_str(), value.c_str(), 1);
      }
      act();
      _exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return takeAll();
  }
  // The notifications that the socket holds.
  std::vector<std::string> takeAll() const {
    std::vector<std::string> told;
    char text[64];
    for (ssize_t got = 0; (got = recv(socket_.get(), text, sizeof text, 0)) >= 0;) {
      told.emplace_back(text, static_cast<std::size_t>(got));
    }
    return told;
  }

  std::string path() const { return folder_ / "notify"; }
  // The same without the first "READY=1".
  std::vector<std::string> toldOnceReady(const Variables& variables,
                                         const std::function<void()>& act) {
    auto told = notifications(variables, [&act] {
      notifyReady();
      act();
    });
    EXPECT_FALSE(told.empty());
    if (!told.empty()) {
      EXPECT_EQ(told.front(), "READY=1");
      told.erase(told.begin());
    }
    return told;
  }
  std::vector<std::string> toldAlive(const std::string& watchdogUs,
                                     const std::function<void()>& act) {
    return toldOnceReady({{"NOTIFY_SOCKET", path()}, {"WATCHDOG_USEC", watchdogUs}}, act);
  }

  // Fills the queue of the socket; returns the number of messages in it.
  std::size_t fill() {
    const UniqueFd sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = addressOf(path());
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    std::size_t count = 0;
    while (count < 100'000 && sendto(sender.get(), "x", 1, 0, generic, sizeof address) == 1) {
      ++count;
    }
    EXPECT_EQ(errno, EAGAIN);
    return count;
  }

  static void callFor(unsigned milliseconds) {
    for (const auto end = nowMs() + milliseconds; nowMs() < end; sleepMs(10)) {
      notifyAlive();
    }
  }

  tests::TemporaryFolder folder_;
  UniqueFd socket_;
};

TEST_F(ServiceManagerTest, ReadyIsSent) {
  EXPECT_EQ(notifications({{"NOTIFY_SOCKET", path()}}, notifyReady),
            std::vector<std::string>{"READY=1"});
}

TEST_F(ServiceManagerTest, AbstractSocketIsSupported) {
  std::string name = "@kova-test-" + std::to_string(getpid());
  for (const std::size_t size : {name.size(), sizeof sockaddr_un::sun_path}) {
    name.resize(size, 'x');
    listen(name);
    EXPECT_EQ(notifications({{"NOTIFY_SOCKET", name}}, notifyReady),
              std::vector<std::string>{"READY=1"});
  }
}

TEST_F(ServiceManagerTest, NothingIsSentWithoutSocket) {
  const auto act = [] {
    unsetenv("NOTIFY_SOCKET");
    notifyReady();
    notifyAlive();
  };
  EXPECT_TRUE(notifications({{"WATCHDOG_USEC", "1000"}}, act).empty());
  EXPECT_TRUE(
      notifications({{"NOTIFY_SOCKET", ""}, {"WATCHDOG_USEC", "1000"}}, notifyReady).empty());
}

TEST_F(ServiceManagerTest, UnusableSocketIsLoggedOnce) {
  for (const std::string& socket : {folder_ / "nobody", std::string("relative"),
                                    std::string("vsock:1:2"), "/" + std::string(200, 'x')}) {
    const auto act = [] {
      tests::records.clear();
      notifyReady();
      callFor(600);
      const std::string text = "Unable to tell the service manager that the start is complete";
      if (tests::records.size() != 1 || tests::records[0].text.find(text) == std::string::npos) {
        _exit(1);
      }
    };
    SCOPED_TRACE(socket);
    EXPECT_TRUE(notifications({{"NOTIFY_SOCKET", socket}}, act).empty());
  }
}

TEST_F(ServiceManagerTest, ReadyIsRepeatedUntilSent) {
  ASSERT_GT(fill(), 0U);
  const auto act = [this] {
    notifyReady();
    takeAll();  // in the child, which inherits the socket
    callFor(700);
  };
  for (const char* watchdogUs : {"", "60000000"}) {
    const auto told =
        notifications({{"NOTIFY_SOCKET", path()}, {"WATCHDOG_USEC", watchdogUs}}, act);
    EXPECT_EQ(std::count(told.begin(), told.end(), "READY=1"), 1) << watchdogUs;
    ASSERT_GT(fill(), 0U);
  }
}

TEST_F(ServiceManagerTest, LongWaitRepeatsReady) {
  ASSERT_GT(fill(), 0U);
  const auto told = notifications({{"NOTIFY_SOCKET", path()}}, [this] {
    notifyReady();
    takeAll();
    sleepAliveMs(1000);
  });
  EXPECT_EQ(told, std::vector<std::string>{"READY=1"});
}

TEST_F(ServiceManagerTest, ProgramsDoNotInheritVariables) {
  const Variables variables{
      {"NOTIFY_SOCKET", path()}, {"WATCHDOG_USEC", "1000000"}, {"WATCHDOG_PID", "1"}};
  const auto act = [] {
    notifyReady();
    std::string out;
    std::string err;
    sysExec("/usr/bin/env", {}, "", out, err, 10'000, 0, 64);
    const bool ran = out.find("PATH=") != std::string::npos;
    const bool clean = out.find("NOTIFY_SOCKET") == std::string::npos &&
                       out.find("WATCHDOG_") == std::string::npos;
    _exit(ran && clean ? 0 : 1);
  };
  EXPECT_EQ(notifications(variables, act), std::vector<std::string>{"READY=1"});
}

TEST_F(ServiceManagerTest, WatchdogIsSentAtHalfInterval) {
  const auto told = toldAlive("400000", [] { callFor(900); });
  EXPECT_GE(told.size(), 2U);
  EXPECT_LE(told.size(), 5U);
  EXPECT_EQ(told.front(), "WATCHDOG=1");
}

TEST_F(ServiceManagerTest, NoWatchdogIsSentIfNotExpected) {
  for (const char* time : {"", "0", "-1", "x", "1000x", "99999999999999999999"}) {
    EXPECT_TRUE(toldAlive(time, [] { callFor(20); }).empty()) << time;
  }
  Variables variables{{"NOTIFY_SOCKET", path()}, {"WATCHDOG_USEC", "1000"}, {"WATCHDOG_PID", "1"}};
  EXPECT_TRUE(toldOnceReady(variables, [] { callFor(20); }).empty());
  variables["WATCHDOG_PID"] = "x";
  EXPECT_TRUE(toldOnceReady(variables, [] { callFor(20); }).empty());
  variables.erase("WATCHDOG_PID");
  const auto told = notifications(variables, [] {
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    notifyReady();
    callFor(20);
  });
  EXPECT_GT(told.size(), 1U);
}

TEST_F(ServiceManagerTest, LongWaitsSendWatchdog) {
  constexpr char kWatchdogUs[] = "200000";
  EXPECT_GE(toldAlive(kWatchdogUs, [] { sysExecSimple("/bin/sleep", "1"); }).size(), 4U);
  EXPECT_GE(toldAlive(kWatchdogUs,
                      [] {
                        std::string out;
                        std::string err;
                        sysExec("/bin/sleep", {"1"}, "", out, err, 0, 0, 1);
                      })
                .size(),
            4U);
  EXPECT_GE(toldAlive("1000000", [] { sleepAliveMs(1600); }).size(), 3U);
  EXPECT_EQ(toldAlive("1000000", [] { sleepAliveMs(0); }).size(), 0U);
  EXPECT_EQ(toldAlive("1000000", [] { sleepAliveMs(1); }).size(), 1U);
}

// The queue holds a few hundred messages at most, see net.unix.max_dgram_qlen.
TEST_F(ServiceManagerTest, StalledManagerDoesNotBlock) {
  const auto before = nowMs();
  const auto told = toldAlive("2", [] {
    for (int call = 0; call < 2'000; ++call) {
      notifyAlive();
      notifyReady();
    }
  });
  EXPECT_LT(nowMs() - before, 5'000U);
  EXPECT_LT(told.size(), 2'000U);
}

}  // namespace
}  // namespace kova::utils
