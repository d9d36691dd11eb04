#include <unistd.h>

#include "SharedCamera.h"

namespace kova::system_test {
namespace {

// Becoming another user inside needs a camera that has more than one: one that root has booted.
class AccessSystem : public UnharmedCamera {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "a camera booted by an ordinary user has only that one user";
    }
    UnharmedCamera::SetUp();
    const auto etc = camera().root() / "etc";
    const std::string accounts = readFile(etc / "passwd");
    if (accounts.find("outsider") == std::string::npos) {
      writeFile(etc / "passwd", accounts +
                                    "outsider:x:1101:1101::/:/bin/sh\n"
                                    "member:x:1102:1102::/:/bin/sh\n");
      writeFile(etc / "group", "root:x:0:\nkova:x:990:member\noutsider:x:1101:\nmember:x:1102:\n");
    }
  }
  void TearDown() override {
    if (geteuid() == 0) {
      UnharmedCamera::TearDown();
    }
  }

  static Result send(const std::string& user) {
    return as(user, {"kova.kova_ctlserver", "/kova", "kova.Ipc1", "Send", "a{sv}", "2",
                     "functionName", "s", "GetSystemStats", "responseExpected", "b", "true"});
  }
  // 4: not to be queued for a name that is taken. Owned is what is answered by 1.
  static Result own(const std::string& user, const std::string& name) {
    return as(user, {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                     "RequestName", "su", name, "4"});
  }
  static bool denied(const Result& result) {
    return result.status != 0 && (result.err.find("Access denied") != std::string::npos ||
                                  result.err.find("not allowed") != std::string::npos ||
                                  result.err.find("Sender is not authorized") != std::string::npos);
  }

 private:
  static Result as(const std::string& user, const std::vector<std::string>& call) {
    const std::string groups = user == "member" ? "member:member:kova" : user + ":" + user;
    std::vector<std::string> command = {
        "chpst", "-u", groups, "busctl", "--address=unix:path=/run/kova/bus", "call"};
    command.insert(command.end(), call.begin(), call.end());
    return camera().exec(command);
  }
};

TEST_F(AccessSystem, AnOutsiderNeitherSendsNorOwnsAName) {
  EXPECT_TRUE(denied(send("outsider"))) << send("outsider").err;
  for (const char* name : {"kova.client.x", "kova.kova_ctlserver", "kova.other"}) {
    EXPECT_TRUE(denied(own("outsider", name))) << name;
  }
}

TEST_F(AccessSystem, AMemberOfTheGroupSendsAndOwnsClientNamesOnly) {
  const Result sent = send("member");
  EXPECT_EQ(sent.status, 0) << sent.err;
  EXPECT_NE(sent.out.find("\"statusCode\" t 0"), std::string::npos) << sent.out;
  EXPECT_EQ(own("member", "kova.client.x").out, "u 1\n");
  for (const char* name : {"kova.kova_ctlserver", "kova.other", "kova.client"}) {
    EXPECT_TRUE(denied(own("member", name))) << name;
  }
}

}  // namespace
}  // namespace kova::system_test
