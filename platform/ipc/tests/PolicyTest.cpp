#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "ObjectsFixture.h"

namespace kova::ipc::testing {
namespace {

constexpr uid_t kOtherUser = 65534;
constexpr gid_t kNoGroup = 65533;

std::string standInGroup() {
  const group* found = getgrgid(kOtherUser);
  return found != nullptr ? found->gr_name : "nogroup";
}

std::size_t limitOf(const std::string& config, const std::string& name) {
  const std::string start = "<limit name=\"" + name + "\">";
  const std::size_t at = config.find(start);
  EXPECT_NE(at, std::string::npos) << name;
  return at != std::string::npos ? std::stoul(config.substr(at + start.size())) : 0;
}

// Tests the permissions of a second user, inside or outside the group. Requires root, to become
// that user.
class PolicyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can become another user";
    }
    ASSERT_TRUE(ipc_.objects().publish(kBox, &box_));
    ASSERT_TRUE(ipc_.Init("test", true, nullptr));
  }

  // Runs the other user's part of the test in its own process and returns the name of the error.
  std::string asOther(gid_t group, const std::function<int(sd_bus*, sd_bus_error*)>& action) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      _exit(act(group, action, ends[1]));
    }
    close(ends[1]);
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
      ipc_.Service(5);
      ipc_.objects().changed(box_, {kFull});
    }
    char name[256] = "";
    const ssize_t got = ::read(ends[0], name, sizeof name - 1);
    close(ends[0]);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0
               ? std::string(name, got > 0 ? static_cast<std::size_t>(got) : 0)
               : "child failed";
  }

  static int act(gid_t group, const std::function<int(sd_bus*, sd_bus_error*)>& action,
                 int result) {
    std::string reason;
    if (setgroups(0, nullptr) != 0 || setgid(group) != 0 || setuid(kOtherUser) != 0) {
      return 1;
    }
    const BusPtr bus = openBus(false, reason);
    if (bus == nullptr) {
      return 2;
    }
    BusError error;
    const int outcome = action(bus.get(), &error.value);
    const std::string name = error.value.name != nullptr ? error.value.name
                             : outcome < 0               ? "errno " + std::to_string(-outcome)
                                                         : "";
    return write(result, name.data(), name.size()) >= 0 ? 0 : 3;
  }

  static int send(sd_bus* bus, sd_bus_error* error) {
    return sd_bus_call_method(bus, "kova.test", kObjectPath, kInterface, kSend, error, nullptr,
                              "a{sv}", 1, "functionName", "s", "Tell");
  }
  static int introspect(sd_bus* bus, sd_bus_error* error) {
    return sd_bus_call_method(bus, "kova.test", kObjectPath, "org.freedesktop.DBus.Introspectable",
                              "Introspect", error, nullptr, "");
  }
  static int broadcastIt(sd_bus* bus, sd_bus_error*) {
    sd_bus_emit_signal(bus, kObjectPath, kInterface, kBroadcast, "a{sv}", 1, "functionName", "s",
                       "Tell");
    return awaitBus(bus);
  }
  static int monitor(sd_bus* bus, sd_bus_error* error) {
    return sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                              "org.freedesktop.DBus.Monitoring", "BecomeMonitor", error, nullptr,
                              "asu", 0, 0U);
  }
  static int reload(sd_bus* bus, sd_bus_error* error) {
    return sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                              "org.freedesktop.DBus", "ReloadConfig", error, nullptr, "");
  }
  static auto own(const char* name) {
    return [name](sd_bus* bus, sd_bus_error* error) {
      return sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                "org.freedesktop.DBus", "RequestName", error, nullptr, "su", name,
                                4U);
    };
  }

  // Waits for a signal of the object, which changes every few milliseconds.
  static int hear(sd_bus* bus, sd_bus_error* error) {
    bool heard = false;
    const auto note = [](sd_bus_message*, void* flag, sd_bus_error*) {
      *static_cast<bool*>(flag) = true;
      return 0;
    };
    sd_bus_match_signal(bus, nullptr, nullptr, "/kova", nullptr, nullptr, note, &heard);
    const std::uint64_t deadline = utils::nowMs() + 1'000;
    while (!heard && utils::nowMs() < deadline) {
      const int result = sd_bus_process(bus, nullptr);
      if (result < 0 || (result == 0 && sd_bus_wait(bus, 100'000) < 0)) {
        return -EIO;
      }
    }
    return heard ? 0 : sd_bus_error_set_const(error, kSilence, "");
  }
  static auto readFrom(const char* name) {
    return [name](sd_bus* bus, sd_bus_error* error) {
      int full = 0;
      return sd_bus_get_property_trivial(bus, name, kObjectPath, "kova.Box1", "Full", error, 'b',
                                         &full);
    };
  }
  static int manage(sd_bus* bus, sd_bus_error* error) {
    return sd_bus_call_method(bus, "kova.test", kObjectPath, "org.freedesktop.DBus.ObjectManager",
                              "GetManagedObjects", error, nullptr, "");
  }
  static int forge(sd_bus* bus, sd_bus_error*) {
    sd_bus_emit_signal(bus, kObjectPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                       "sa{sv}as", "kova.Forged1", 0, 0);
    return awaitBus(bus);
  }

  static constexpr char kSilence[] = "kova.test.Silence";
  static constexpr char kDenied[] = "org.freedesktop.DBus.Error.AccessDenied";

  PrivateBus bus_{{{"group=\"kova\"", "group=\"" + standInGroup() + "\""}}};
  Box box_;
  Ipc ipc_;
  Recorder handler_{&ipc_, "Tell"};
};

TEST(PolicyLimitsTest, StalledPeersOfOneUserDoNotBlockDaemon) {
  std::stringstream config;
  config << std::ifstream(KOVA_BUS_CONFIG).rdbuf();
  const std::size_t peers = limitOf(config.str(), "max_connections_per_user");
  const std::size_t each = limitOf(config.str(), "max_outgoing_bytes") + Objects::kMaxAnswerBytes;
  EXPECT_GT(limitOf(config.str(), "max_incoming_bytes"), peers * each);
}

TEST_F(PolicyTest, OutsidersCannotSendOwnOrMonitor) {
  EXPECT_EQ(asOther(kNoGroup, send), kDenied);
  EXPECT_EQ(asOther(kNoGroup, introspect), kDenied);
  EXPECT_EQ(asOther(kNoGroup, own("kova.test2")), kDenied);
  EXPECT_EQ(asOther(kNoGroup, own("kova.client.one")), kDenied);
  EXPECT_EQ(asOther(kNoGroup, own("other.name")), kDenied);
  EXPECT_EQ(asOther(kNoGroup, monitor), kDenied);
  EXPECT_EQ(asOther(kNoGroup, broadcastIt), "");
  // Messages arrive in order.
  EXPECT_EQ(asOther(kOtherUser, send), "");
  EXPECT_EQ(handler_.requests.size(), 1U);
}

TEST_F(PolicyTest, MembersSendBroadcastAndOwnClientNames) {
  EXPECT_EQ(asOther(kOtherUser, send), "");
  EXPECT_EQ(handler_.requests.size(), 1U);
  EXPECT_EQ(asOther(kOtherUser, introspect), "");
  EXPECT_EQ(asOther(kOtherUser, own("kova.client.one")), "");
  EXPECT_EQ(asOther(kOtherUser, own("kova.client")), kDenied);
  EXPECT_EQ(asOther(kOtherUser, own("kova.test2")), kDenied);
  EXPECT_EQ(asOther(kOtherUser, own("kova.clientele")), kDenied);
  EXPECT_EQ(asOther(kOtherUser, monitor), kDenied);
  EXPECT_EQ(asOther(kOtherUser, reload), kDenied);
  EXPECT_EQ(asOther(kOtherUser, broadcastIt), "");
  EXPECT_EQ(asOther(kOtherUser, send), "");
  EXPECT_EQ(handler_.requests.size(), 3U);
}

TEST_F(PolicyTest, OnlyMembersReadAndHearObjects) {
  EXPECT_EQ(asOther(kNoGroup, readFrom("kova.test")), kDenied);
  EXPECT_EQ(asOther(kNoGroup, manage), kDenied);
  EXPECT_EQ(asOther(kNoGroup, hear), kSilence);
  EXPECT_EQ(asOther(kOtherUser, readFrom("kova.test")), "");
  EXPECT_EQ(asOther(kOtherUser, manage), "");
  EXPECT_EQ(asOther(kOtherUser, hear), "");
}

TEST_F(PolicyTest, UniqueNameOfDaemonGrantsNothingMore) {
  Stranger asking;
  sd_bus_message* answered = nullptr;
  ASSERT_GE(sd_bus_call_method(asking.bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "GetNameOwner", nullptr, &answered, "s",
                               "kova.test"),
            0);
  const MessagePtr answer(answered);
  const char* owner = nullptr;
  ASSERT_GE(sd_bus_message_read(answer.get(), "s", &owner), 0);
  EXPECT_EQ(asOther(kNoGroup, readFrom(owner)), kDenied);
  EXPECT_EQ(asOther(kOtherUser, readFrom(owner)), "");
}

TEST_F(PolicyTest, OnlyDaemonsSignalChanges) {
  Stranger watcher;
  int heard = 0;
  const auto note = [](sd_bus_message*, void* count, sd_bus_error*) {
    ++*static_cast<int*>(count);
    return 0;
  };
  ASSERT_GE(sd_bus_add_match(watcher.bus(), nullptr,
                             "type='signal',member='PropertiesChanged',arg0='kova.Forged1'", note,
                             &heard),
            0);
  EXPECT_EQ(asOther(kOtherUser, forge), "");
  ASSERT_GE(forge(watcher.bus(), nullptr), 0);
  while (heard == 0 && watcher.Service()) {
  }
  EXPECT_EQ(heard, 1);
}

}  // namespace
}  // namespace kova::ipc::testing
