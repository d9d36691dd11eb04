#include "../../src/Systemd.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "PrivateBus.h"
#include "SyslogRecorder.h"
#include "TemporaryFolder.h"
#include "kova/utils/Clock.h"
#include "kova/utils/UniqueFd.h"

namespace kova::utils {
namespace {

constexpr char kName[] = "org.freedesktop.systemd1";
constexpr char kUnitPath[] = "/org/freedesktop/systemd1/unit/lights_2eservice";

using Answer = std::function<int(sd_bus_message*)>;

template <typename... Values>
Answer returns(const char* types, Values... values) {
  return [=](sd_bus_message* call) { return sd_bus_reply_method_return(call, types, values...); };
}

Answer returnsError(const char* text) {
  return [text](sd_bus_message* call) {
    return sd_bus_reply_method_errorf(call, "org.freedesktop.systemd1.Test", "%s", text);
  };
}

int staySilent(sd_bus_message*) {
  return 0;
}

/// Plays systemd: a thread that owns its bus name and answers from a table. A property is looked up
/// like a method of the same name.
class FakeSystemd {
 public:
  explicit FakeSystemd(const std::string& address) {
    if (openBus(address, false, 10'000, bus_) < 0 ||
        sd_bus_request_name(bus_.get(), kName, 0) < 0 ||
        sd_bus_add_filter(bus_.get(), nullptr, onMessage, this) < 0) {
      throw std::runtime_error("no systemd on the bus");
    }
  }
  ~FakeSystemd() { stop(); }
  FakeSystemd(const FakeSystemd&) = delete;
  FakeSystemd& operator=(const FakeSystemd&) = delete;

  void start() {
    ends_ = false;
    calls.clear();
    thread_ = std::thread([this] {
      while (!ends_ && sd_bus_process(bus_.get(), nullptr) >= 0) sd_bus_wait(bus_.get(), 5'000);
    });
  }
  void stop() {
    ends_ = true;
    if (thread_.joinable()) thread_.join();
  }

  std::map<std::string, Answer> answers;
  std::vector<std::string> calls;  // with the unit and the flags, if given

 private:
  static int onMessage(sd_bus_message* message, void* owner, sd_bus_error*) {
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) return 0;
    static_cast<FakeSystemd*>(owner)->answer(message);
    return 1;
  }

  void answer(sd_bus_message* message) {
    std::string member = sd_bus_message_get_member(message);
    const char* text = "";
    if (member == "Get") {
      sd_bus_message_read(message, "ss", nullptr, &text);
      member = text;
      text = "";
    } else if (sd_bus_message_has_signature(message, "s") > 0 ||
               sd_bus_message_has_signature(message, "ss") > 0) {
      sd_bus_message_read(message, "s", &text);
    } else if (member != "Reload") {
      sd_bus_message_enter_container(message, 'a', "s");
      sd_bus_message_read(message, "s", &text);
      sd_bus_message_exit_container(message);
    }
    std::string call = *text == '\0' ? member : member + " " + text;
    for (int flag = 0; sd_bus_message_read(message, "b", &flag) > 0;) {
      call += flag == 0 ? " false" : " true";
    }
    calls.push_back(call);
    answers.at(member)(message);
  }

  BusPtr bus_;
  std::atomic<bool> ends_ = false;
  std::thread thread_;
};

class SystemdTest : public testing::Test {
 protected:
  SystemdTest() {
    auto& answers = systemd_.answers;
    answers["LoadUnit"] = returns("o", kUnitPath);
    answers["EnableUnitFiles"] = returns("ba(sss)", 1, 0);
    answers["DisableUnitFiles"] = returns("a(sss)", 0);
    answers["Reload"] = returns("");
    answers["StartUnit"] = returns("o", "/org/freedesktop/systemd1/job/1");
    answers["StopUnit"] = returns("o", "/org/freedesktop/systemd1/job/2");
    answers["LoadState"] = returns("v", "s", "loaded");
    answers["Id"] = returns("v", "s", "lights.service");
    answers["Names"] = returns("v", "as", 1, "lights.service");
    answers["Job"] = returns("v", "(uo)", 0, "/");
    answers["ActiveState"] = returns("v", "s", "active");
    answers["ActiveEnterTimestampMonotonic"] = returns("v", "t", std::uint64_t{1});
    tests::records.clear();
  }

  bool enable(const std::string& name = "lights", unsigned budgetMs = 8000) {
    return run(&Systemd::enable, name, budgetMs);
  }
  bool disable(const std::string& name = "lights", unsigned budgetMs = 8000) {
    return run(&Systemd::disable, name, budgetMs);
  }

  bool run(bool (Systemd::*request)(const std::string&), const std::string& name,
           unsigned budgetMs) {
    tests::records.clear();
    systemd_.start();
    const std::uint64_t before = nowMs();
    Systemd systemd(bus_.address(), before + budgetMs);
    const bool done = (systemd.*request)(name);
    EXPECT_LT(nowMs() - before, budgetMs + 2000U);
    systemd_.stop();
    return done;
  }

  /// Expects that the last request logged this and nothing else.
  static void expectLine(const std::string& text) {
    ASSERT_EQ(tests::records.size(), 1U);
    EXPECT_NE(tests::records[0].text.find(text), std::string::npos) << tests::records[0].text;
  }

  ipc::testing::PrivateBus bus_{
      {{"<allow own_prefix=\"kova\"/>", "<allow own=\"org.freedesktop.systemd1\"/>"}}};
  FakeSystemd systemd_{bus_.address()};
};

using Calls = std::vector<std::string>;

TEST_F(SystemdTest, ServiceIsEnabledAndStarted) {
  const std::uint64_t before = nowMs();
  EXPECT_TRUE(enable());
  EXPECT_GE(nowMs() - before, 500U) << "the state is read twice";
  EXPECT_EQ(systemd_.calls, (Calls{"LoadUnit lights.service", "LoadState", "Id", "Names",
                                   "EnableUnitFiles lights.service false false", "Reload",
                                   "StartUnit lights.service", "Job", "ActiveState",
                                   "ActiveEnterTimestampMonotonic", "ActiveState",
                                   "ActiveEnterTimestampMonotonic"}));
  EXPECT_TRUE(tests::records.empty());
}

TEST_F(SystemdTest, ServiceIsStoppedAndDisabled) {
  systemd_.answers["ActiveState"] = returns("v", "s", "inactive");
  EXPECT_TRUE(disable());
  EXPECT_EQ(systemd_.calls,
            (Calls{"LoadUnit lights.service", "LoadState", "Id", "Names", "StopUnit lights.service",
                   "Job", "ActiveState", "DisableUnitFiles lights.service false", "Reload"}));
  EXPECT_TRUE(tests::records.empty());
}

TEST_F(SystemdTest, BusAcceptsNoDescriptors) {
  BusPtr bus;
  ASSERT_GE(openBus(bus_.address(), false, 10'000, bus), 0);
  EXPECT_EQ(sd_bus_can_send(bus.get(), SD_BUS_TYPE_UNIX_FD), 0);
}

TEST_F(SystemdTest, UnitWithoutInstallSectionIsStartedAndLogged) {
  systemd_.answers["EnableUnitFiles"] = returns("ba(sss)", 0, 0);
  EXPECT_TRUE(enable());
  expectLine("lights.service has no [Install] section");
  EXPECT_EQ(systemd_.calls[6], "StartUnit lights.service");
}

TEST_F(SystemdTest, JobIsAwaited) {
  int left = 5;
  systemd_.answers["Job"] = [&left](sd_bus_message* call) {
    return sd_bus_reply_method_return(call, "v", "(uo)", left > 0 ? left-- : 0, "/");
  };
  EXPECT_TRUE(enable());
  EXPECT_EQ(left, 0);
}

TEST_F(SystemdTest, AliasActsOnUnit) {
  systemd_.answers["ActiveState"] = returns("v", "s", "failed");
  EXPECT_TRUE(disable("lamps"));
  EXPECT_EQ(systemd_.calls.front(), "LoadUnit lamps.service");
  EXPECT_EQ(systemd_.calls[4], "StopUnit lights.service");
}

TEST_F(SystemdTest, EssentialServiceIsNotStopped) {
  for (const char* unit : {"kova-bus.service", "kova_ctlserver.service", "dbus.service",
                           "syslog.service", "syslogd.service", "systemd-journald.service"}) {
    systemd_.answers["Id"] = returns("v", "s", unit);
    systemd_.answers["Names"] = returns("v", "as", 1, unit);
    EXPECT_FALSE(disable()) << unit;
    expectLine(std::string("Refused to stop ") + unit);
    EXPECT_EQ(systemd_.calls.back(), "Names");
  }
}

TEST_F(SystemdTest, EssentialServiceIsNotStoppedByAlias) {
  systemd_.answers["Names"] = returns("v", "as", 2, "lights.service", "dbus.service");
  EXPECT_FALSE(disable());
  expectLine("Refused to stop lights.service: the camera cannot be managed without");
  EXPECT_TRUE(enable());
}

TEST_F(SystemdTest, SystemUnitIsNeitherStartedNorStopped) {
  for (const char* unit :
       {"systemd-poweroff.service", "systemd-fsck@dev-sda.service", "initrd-switch-root.service",
        "debug-shell.service", "emergency.service", "rescue.service"}) {
    systemd_.answers["Id"] = returns("v", "s", unit);
    systemd_.answers["Names"] = returns("v", "as", 1, unit);
    for (const bool isStart : {true, false}) {
      EXPECT_FALSE(isStart ? enable() : disable()) << unit;
      expectLine(std::string("Refused to ") + (isStart ? "start " : "stop ") + unit +
                 ": it belongs to the system itself");
      EXPECT_EQ(systemd_.calls.back(), "Names");
    }
  }
}

TEST_F(SystemdTest, SystemUnitIsNotStartedByAlias) {
  systemd_.answers["Names"] = returns("v", "as", 2, "lights.service", "debug-shell.service");
  EXPECT_FALSE(enable());
  expectLine("Refused to start lights.service: it belongs to the system itself");
}

TEST_F(SystemdTest, UnitOfBoardMayResembleSystemUnit) {
  systemd_.answers["Id"] = returns("v", "s", "rescued.service");
  systemd_.answers["Names"] = returns("v", "as", 1, "rescued.service");
  EXPECT_TRUE(enable());
}

TEST_F(SystemdTest, UnitThatCannotBeUsedIsLogged) {
  systemd_.answers["LoadState"] = returns("v", "s", "not-found");
  EXPECT_FALSE(enable());
  expectLine("There is no service \"lights\" of systemd");
  for (const char* state : {"masked", "bad-setting", "error", ""}) {
    systemd_.answers["LoadState"] = returns("v", "s", state);
    EXPECT_FALSE(enable());
    expectLine(std::string("The unit lights.service cannot be used: it is ") + state);
    EXPECT_EQ(systemd_.calls.back(), "LoadState");
    EXPECT_FALSE(disable());
  }
}

TEST_F(SystemdTest, InvalidNamesNeverReachSystemd) {
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string(".hidden"),
        std::string("../lights"), std::string("/lights"), std::string("lights\0", 7)}) {
    EXPECT_FALSE(enable(name)) << name;
    EXPECT_TRUE(systemd_.calls.empty()) << name;
    expectLine("There is no service");
    EXPECT_FALSE(disable(name)) << name;
    EXPECT_TRUE(systemd_.calls.empty()) << name;
  }
}

TEST_F(SystemdTest, InvalidUtf8NameFails) {
  EXPECT_FALSE(enable("\xff\xfe"));
  expectLine("systemd LoadUnit of");
}

TEST_F(SystemdTest, ServiceThatEndsAtOnceFails) {
  for (const char* state : {"inactive", "failed", "activating", ""}) {
    systemd_.answers["ActiveState"] = returns("v", "s", state);
    EXPECT_FALSE(enable()) << state;
    expectLine("lights.service ended as soon as it was started");
  }
}

TEST_F(SystemdTest, ServiceThatIsRestartedFails) {
  std::uint64_t started = 0;
  systemd_.answers["ActiveEnterTimestampMonotonic"] = [&started](sd_bus_message* call) {
    return sd_bus_reply_method_return(call, "v", "t", ++started);
  };
  EXPECT_FALSE(enable());
  expectLine("lights.service ended as soon as it was started");
}

TEST_F(SystemdTest, ServiceThatStaysUpIsNotDisabled) {
  EXPECT_FALSE(disable());
  expectLine("systemd StopUnit of lights.service failed: active");
  EXPECT_EQ(systemd_.calls.back(), "ActiveState");
}

TEST_F(SystemdTest, EndlessJobEndsInTime) {
  systemd_.answers["Job"] = returns("v", "(uo)", 7, "/org/freedesktop/systemd1/job/7");
  EXPECT_FALSE(enable("lights", 1500));
  expectLine("systemd StartUnit of lights.service failed: it takes too long");
  EXPECT_LT(systemd_.calls.size(), 20U) << "polled, not in a busy loop";
}

TEST_F(SystemdTest, CallPastDeadlineEndsAtOnce) {
  int answers = 1;
  systemd_.answers["ActiveState"] = [&answers](sd_bus_message* call) {
    return answers-- > 0 ? sd_bus_reply_method_return(call, "v", "s", "active") : 0;
  };
  EXPECT_FALSE(enable("lights", 400));
  expectLine("systemd ActiveState of lights.service failed: ");
}

/// Replaces the answers to a request, one at a time, by a hostile one.
class HostileSystemdTest : public SystemdTest {
 protected:
  void expectFailures(const Answer& hostile, const Calls& spared, unsigned budgetMs) {
    for (const char* state : {"active", "inactive"}) {
      const bool starts = std::strcmp(state, "active") == 0;
      systemd_.answers["ActiveState"] = returns("v", "s", state);
      ASSERT_TRUE(starts ? enable() : disable());
      std::set<std::string> members;
      for (const std::string& call : systemd_.calls) members.insert(call.substr(0, call.find(' ')));
      for (const std::string& spare : spared) members.erase(spare);
      for (const std::string& member : members) {
        SCOPED_TRACE(member);
        const Answer before = std::exchange(systemd_.answers[member], hostile);
        EXPECT_FALSE(starts ? enable("lights", budgetMs) : disable("lights", budgetMs));
        systemd_.answers[member] = before;
        expectLine("systemd " + member + " of lights.service failed: ");
      }
    }
  }
};

TEST_F(HostileSystemdTest, RefusalFails) {
  expectFailures(returnsError("Refused.\nreally"), {}, 8000);
  EXPECT_NE(tests::records[0].text.find("Refused."), std::string::npos);
}

TEST_F(HostileSystemdTest, SilenceEndsInTime) {
  expectFailures(staySilent, {}, 1500);
}

// Methods whose reply is not read: only an error matters.
const Calls kNotLookedAt{"DisableUnitFiles", "Reload", "StartUnit", "StopUnit"};

TEST_F(HostileSystemdTest, GarbageFails) {
  expectFailures(returns("d", 1.5), kNotLookedAt, 8000);
  expectFailures(returns("v", "b", 1), kNotLookedAt, 8000);
  expectFailures(returns(""), kNotLookedAt, 8000);
}

TEST_F(HostileSystemdTest, BusThatVanishesFails) {
  systemd_.answers["StartUnit"] = [this](sd_bus_message*) {
    bus_.kill();
    return 0;
  };
  EXPECT_FALSE(enable());
  expectLine("systemd StartUnit of lights.service failed: ");
}

TEST_F(HostileSystemdTest, BusWithoutSystemdFails) {
  const ipc::testing::PrivateBus empty;
  Systemd systemd(empty.address(), nowMs() + 8000);
  EXPECT_FALSE(systemd.enable("lights"));
  expectLine("systemd LoadUnit of lights.service failed: ");
}

// The listener never accepts a connection.
TEST_F(HostileSystemdTest, HungBusEndsInTime) {
  const tests::TemporaryFolder folder;
  const std::string path = folder / "bus";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener.get(), 1), 0);
  const std::uint64_t before = nowMs();
  for (int connection = 0; connection < 4; ++connection) {
    tests::records.clear();
    rusage earlier{};
    getrusage(RUSAGE_THREAD, &earlier);
    Systemd systemd("unix:path=" + path, nowMs() + 300);
    EXPECT_FALSE(systemd.disable("lights"));
    expectLine("Unable to reach systemd on the system bus");
    if (connection != 0) continue;
    expectLine("Connection timed out");
    rusage later{};
    getrusage(RUSAGE_THREAD, &later);
    EXPECT_GT(later.ru_nvcsw, earlier.ru_nvcsw) << "it sleeps while it waits";
  }
  EXPECT_LT(nowMs() - before, 6000U);
}

}  // namespace
}  // namespace kova::utils
