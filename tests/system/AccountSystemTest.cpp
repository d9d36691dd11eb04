#include "Login.h"
#include "SharedCamera.h"
#include "SystemCfg.h"

namespace kova::system_test {
namespace {

using namespace std::string_literals;

constexpr char kFactoryPassword[] = "admin";
constexpr char kNameKey[] = "users.1.name";
constexpr char kHashKey[] = "users.1.password";

/// A camera with the factory account at the beginning of each test.
class AccountSystem : public UnharmedCamera {
 protected:
  void SetUp() override {
    UnharmedCamera::SetUp();
    const auto factory = camera().root() / "usr/share/factory/etc";
    writeFile(systemCfg(camera()), readFile(factory / "system.cfg"));
    writeFile(passwdFile(), readFile(factory / "passwd"));
  }

  static std::filesystem::path passwdFile() { return camera().root() / "etc/passwd"; }
  static std::string passwd() { return readFile(passwdFile()); }
  static std::string cfg() { return readFile(systemCfg(camera())); }
  static std::string storedHash() { return settingIn(cfg(), kHashKey); }
  static std::string accountHash() {
    const std::string line = passwd();
    const auto begin = line.find(':') + 1;
    return line.substr(begin, line.find(':', begin) - begin);
  }
  static std::string lineOf(const std::string& user, const std::string& hash) {
    return user + ":" + hash + ":0:0:Administrator:/etc/persistent:/bin/sh\n";
  }
  static Result changePassword(const std::string& from, const std::string& to,
                               std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"user", "passwd", "--stdin"});
    return camera().ctl(more, from + "\n" + to + "\n");
  }
  static int user(const char* what) { return camera().ctl({"user", what}).status; }
};

TEST_F(AccountSystem, NewPasswordReplacesOldAtLogin) {
  const Result changed = changePassword(kFactoryPassword, "new pass:word");
  ASSERT_EQ(changed.status, 0) << changed.err;
  EXPECT_EQ(passwd(), lineOf("admin", accountHash()));
  EXPECT_EQ(storedHash(), accountHash());
  EXPECT_TRUE(canLogIn(camera(), "admin", "new pass:word"));
  EXPECT_FALSE(canLogIn(camera(), "admin", kFactoryPassword));
}

TEST_F(AccountSystem, LockedAccountIsRefusedUntilEnabled) {
  const std::string hash = storedHash();
  ASSERT_EQ(user("disable"), 0);
  EXPECT_EQ(storedHash(), "!" + hash);
  EXPECT_EQ(accountHash(), "!" + hash);
  EXPECT_FALSE(canLogIn(camera(), "admin", kFactoryPassword));
  EXPECT_NE(changePassword(kFactoryPassword, "other").status, 0);

  ASSERT_EQ(user("enable"), 0);
  EXPECT_EQ(storedHash(), hash);
  EXPECT_EQ(accountHash(), hash);
  EXPECT_TRUE(canLogIn(camera(), "admin", kFactoryPassword));
}

TEST_F(AccountSystem, NewNameLogsInWithOldPasswordAndFreshHash) {
  const std::string hash = storedHash();
  const Result changed = changePassword(kFactoryPassword, kFactoryPassword, {"--name", "operator"});
  ASSERT_EQ(changed.status, 0) << changed.err;
  EXPECT_EQ(settingIn(cfg(), kNameKey), "operator");
  EXPECT_EQ(storedHash(), hash);
  EXPECT_NE(accountHash(), hash);
  EXPECT_EQ(passwd(), lineOf("operator", accountHash()));
  EXPECT_EQ(camera().ctl({"user", "show"}).out, "operator\n");
  EXPECT_TRUE(canLogIn(camera(), "operator", kFactoryPassword));
}

/// `kovactl monitor` inside a camera, running and connected to the bus.
class Monitor {
 public:
  explicit Monitor(const Camera& camera) : camera_(camera) {
    pid_ = camera.shell("kovactl monitor >/run/monitor 2>&1 & echo $!").out;
    // Connected once it shows a request.
    EXPECT_TRUE(eventually([&] {
      return camera_.ctl({"user", "show"}).status == 0 && !shown().empty();
    }));
  }
  ~Monitor() { camera_.shell("kill " + pid_); }
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  std::string shown() const { return readFile(camera_.root() / "run/monitor"); }

 private:
  const Camera& camera_;
  std::string pid_;
};

TEST_F(AccountSystem, PasswordsAndHashesAreNeverShown) {
  const LogMark mark(camera());
  const std::string factoryHash = storedHash();
  const Monitor monitor(camera());
  const Result wrong = changePassword("secret-wrong", "secret-new");
  EXPECT_NE(wrong.status, 0);
  const Result right = changePassword(kFactoryPassword, "secret-new");
  EXPECT_EQ(right.status, 0) << right.err;
  const std::string newHash = storedHash();
  const Result renamed = changePassword("secret-new", "secret-last", {"--name", "operator"});
  EXPECT_EQ(renamed.status, 0) << renamed.err;
  user("disable");
  user("enable");
  EXPECT_TRUE(mark.waitFor("Authentication failure"));
  EXPECT_TRUE(eventually(
      [&] { return monitor.shown().find("EnableUsernamePassword") != std::string::npos; }));
  EXPECT_GE(occurrences(monitor.shown(), "passwordNew"), 3U) << monitor.shown();

  const std::string seen = mark.text() + monitor.shown() + camera().tools() + wrong.out +
                           wrong.err + right.out + right.err + renamed.out + renamed.err;
  for (const std::string& secret : {"secret-wrong"s, "secret-new"s, "secret-last"s, factoryHash,
                                    newHash, storedHash(), accountHash(), "$6$"s}) {
    EXPECT_EQ(seen.find(secret), std::string::npos) << secret;
  }
}

}  // namespace
}  // namespace kova::system_test
