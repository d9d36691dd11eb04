#include <sys/stat.h>
#include <unistd.h>

#include "SharedCamera.h"
#include "SystemCfg.h"

namespace kova::system_test {
namespace {

constexpr char kAccounts[] =
    "outsider:x:1101:1101::/:/bin/sh\nmember:x:1102:1102::/:/bin/sh\n"
    "other:secret:1103:1103::/:/bin/sh\n";
constexpr char kGroups[] =
    "root:x:0:\nkova:x:990:member,other,admin\noutsider:x:1101:\nmember:x:1102:\nother:x:1103:\n";
constexpr gid_t kGroup = 990;  // of "kova" in a virtual camera

// Switching users inside needs a camera that maps several users: one booted by root.
class AccessSystem : public SharedCamera {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "a camera booted by an ordinary user has only that one user";
    }
    SharedCamera::SetUp();
    writeFile(etc() / "passwd", readFile(factory() / "passwd") + kAccounts);
    writeFile(etc() / "group", kGroups);
    writeFile(systemCfg(camera()), readFile(factory() / "system.cfg"));
  }

  static std::filesystem::path etc() { return camera().root() / "etc"; }
  static std::filesystem::path factory() { return camera().root() / "usr/share/factory/etc"; }

  static Result send(const std::string& user) {
    return as(user, {"kova.kova_ctlserver", "/kova", "kova.Ipc1", "Send", "a{sv}", "2",
                     "functionName", "s", "GetSystemStats", "responseExpected", "b", "true"});
  }
  // 4 is DBUS_NAME_FLAG_DO_NOT_QUEUE; the answer 1 means primary owner.
  static Result own(const std::string& user, const std::string& name) {
    return as(user, {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                     "RequestName", "su", name, "4"});
  }
  static bool denied(const Result& result) {
    return result.status != 0 && (result.err.find("Access denied") != std::string::npos ||
                                  result.err.find("not allowed") != std::string::npos ||
                                  result.err.find("Sender is not authorized") != std::string::npos);
  }

  static bool refused(const Result& result) {
    return result.status != 0 && result.err.find("Permission denied") != std::string::npos;
  }

  /// Restarts the bus, and returns once the daemon, which exits with it, serves again.
  static void restartBus() {
    const pid_t daemon = controlServer(camera()).pid();
    ASSERT_EQ(camera().exec({"sv", "restart", "/etc/service/kova_bus"}).status, 0);
    ASSERT_TRUE(eventually([daemon] {
      const auto now = processesOf(camera(), "kova_ctlserver");
      return now.size() == 1 && now.front() != daemon;
    }));
    ASSERT_TRUE(camera().waitForService());
  }

 private:
  // By number, as a supervisor sets a service's user and groups: needs no account line.
  static Result as(const std::string& user, const std::vector<std::string>& call) {
    const std::string groups = user == "member"  ? ":1102:1102:990"
                               : user == "other" ? ":1103:1103:990"
                                                 : ":1101:1101";
    std::vector<std::string> command = {
        "chpst", "-u", groups, "busctl", "--address=unix:path=/run/kova/bus", "call"};
    command.insert(command.end(), call.begin(), call.end());
    return camera().exec(command);
  }
};

TEST_F(AccessSystem, SocketFolderIsOpenOnlyToRootAndGroup) {
  struct stat folder {};
  ASSERT_EQ(stat((camera().root() / "run/kova").c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 07777U, 0750U);
  EXPECT_EQ(folder.st_uid, 0U);
  EXPECT_EQ(folder.st_gid, kGroup);
}

TEST_F(AccessSystem, OutsiderDoesNotReachBus) {
  EXPECT_TRUE(refused(send("outsider"))) << send("outsider").err;
  for (const char* name : {"kova.client.x", "kova.kova_ctlserver", "kova.other"}) {
    EXPECT_TRUE(refused(own("outsider", name))) << name;
  }
}

class AccessAfterPasswordChange : public AccessSystem {
 protected:
  void SetUp() override {
    AccessSystem::SetUp();
    if (IsSkipped()) {
      return;
    }
    ASSERT_NO_FATAL_FAILURE(restartBus());
    const Result changed = camera().ctl({"user", "passwd", "--stdin"}, "admin\nother\n");
    ASSERT_EQ(changed.status, 0) << changed.err;
    ASSERT_EQ(passwd().find('\n'), passwd().size() - 1) << "only the administrator's line is left";
  }

  static std::string passwd() { return readFile(etc() / "passwd"); }
};

TEST_F(AccessAfterPasswordChange, MembersCallRegardlessOfEarlierCalls) {
  for (const char* member : {"member", "other"}) {
    const Result sent = send(member);
    EXPECT_EQ(sent.status, 0) << member << sent.err;
  }
  EXPECT_TRUE(refused(send("outsider")));
}

TEST_F(AccessAfterPasswordChange, MembersCallAfterBusRestart) {
  const std::string administrator = passwd();
  ASSERT_NO_FATAL_FAILURE(restartBus());
  for (const char* member : {"member", "other"}) {
    const Result sent = send(member);
    EXPECT_EQ(sent.status, 0) << member << sent.err;
    EXPECT_TRUE(denied(own(member, "kova.other")));
  }
  EXPECT_EQ(own("member", "kova.client.x").out, "u 1\n");
  EXPECT_TRUE(refused(send("outsider")));
  EXPECT_EQ(passwd(), administrator +
                          "member:*:1102:1102::/:/bin/sh\n"
                          "other:*:1103:1103::/:/bin/sh\n")
      << "no password, and no other account";
}

TEST_F(AccessAfterPasswordChange, MembersCallAfterSaveAndReboot) {
  const int boot = camera().boots();
  ASSERT_EQ(camera().ctl({"save", "--sync"}).status, 0);
  ASSERT_EQ(camera().exec({"/usr/bin/reboot"}).status, 0);
  ASSERT_TRUE(camera().waitForBoot(boot + 1));
  EXPECT_EQ(send("member").status, 0);
}

TEST_F(AccessAfterPasswordChange, FormerMemberIsForgotten) {
  writeFile(etc() / "group", "root:x:0:\nkova:x:990:other\n");
  ASSERT_NO_FATAL_FAILURE(restartBus());
  EXPECT_EQ(passwd().find("member"), std::string::npos);
  EXPECT_NE(send("member").status, 0);
  EXPECT_EQ(send("other").status, 0);
  writeFile(etc() / "group", kGroups);
  ASSERT_NO_FATAL_FAILURE(restartBus());
  EXPECT_EQ(passwd().find("member"), std::string::npos);
}

}  // namespace
}  // namespace kova::system_test
