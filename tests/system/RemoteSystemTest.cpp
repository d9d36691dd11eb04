#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>

#include "../../platform/utils/tests/TemporaryFolder.h"
#include "RawServer.h"
#include "SharedCamera.h"

namespace kova::system_test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr char kAccounts[] =
    "sshd:*:100:65534::/run/sshd:/bin/false\n"
    "outsider:*:1101:1101::/:/bin/sh\n"
    "member:*:1102:1102::/:/bin/sh\n"
    "bare:*:1103:1103::/:/bin/sh\n"
    "lost:*:1104:1104::/:/bin/sh\n"
    "bound:*:1105:1105::/:/bin/sh\n";
constexpr char kGroups[] = "root:x:0:\nkova:x:990:member,bound,admin\n";
constexpr char kConfig[] = R"(ListenAddress 127.0.0.1
HostKey /opt/ssh/host
AuthorizedKeysFile /opt/ssh/%u.pub /opt/ssh/user.pub
AuthenticationMethods publickey
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitRootLogin yes
StrictModes no
UsePAM no
PidFile /run/sshd.pid
LoginGraceTime 20
Match User bare
  SetEnv PATH=/bin
Match User lost
  SetEnv KOVA_BUS_ADDRESS=unix:path=/nonexistent/bus
)";
constexpr uid_t kNobody = 65534;

std::string serverProgram() {
  for (const char* path : {KOVA_OPENSSH "/usr/sbin/sshd", "/usr/sbin/sshd"}) {
    if (access(path, X_OK) == 0) {
      return path;
    }
  }
  return "";
}

// A port that is free at the moment.
std::string freePort() {
  const std::string uri = engine::RawServer([](engine::Connection&) {}).uri("");
  return uri.substr(uri.rfind(':') + 1);
}

/// kovactl on this machine with --host, and a camera that runs sshd(8). The server sees only the
/// camera's files, accounts and processes, and ends with the camera.
class RemoteSystem : public SharedCamera {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "an SSH server needs root in the camera";
    }
    if (serverProgram().empty()) {
      GTEST_SKIP() << "no SSH server: ./dev test unpacks it";
    }
    SharedCamera::SetUp();
    fs::permissions(folder_.path(), fs::perms(0755));
    installServer();
    ASSERT_NO_FATAL_FAILURE(startServer());
    installClient();
  }
  void TearDown() override {
    if (!IsSkipped()) {
      camera().exec({"sh", "-c", "kill $(cat /run/sshd.pid)"});
    }
  }

  /// Runs kovactl here, as root or as another user.
  Result runAs(const std::string& user, std::vector<std::string> arguments,
               uid_t caller = 0) const {
    const std::string host = user + "@127.0.0.1:" + port_;
    arguments.insert(arguments.begin(), {KOVA_HOST_CLIENT, "--host", host});
    arguments.insert(arguments.begin(),
                     {"--reuid", std::to_string(caller), "--regid", std::to_string(caller),
                      "--clear-groups", "env", "PATH=" + folder_.path() + ":/usr/bin:/bin",
                      "KEY=" + folder_ / (caller == 0 ? "root" : "nobody")});
    return run("/usr/bin/setpriv", arguments);
  }
  static fs::path server() { return camera().root() / "opt/ssh"; }
  std::string publicKey() const { return readFile(folder_ / "root.pub"); }

 private:
  void installServer() const {
    fs::remove_all(server());
    fs::create_directories(server() / "lib");
    fs::create_directories(camera().root() / "run/sshd");
    fs::copy_file(serverProgram(), server() / "sshd");
    // "NAME => PATH (ADDRESS)" (ldd(1))
    std::istringstream libraries(run("/usr/bin/ldd", {serverProgram()}).out);
    for (std::string line; std::getline(libraries, line);) {
      const auto begin = line.find("=> /");
      if (begin != std::string::npos) {
        const fs::path path = line.substr(begin + 3, line.find(" (") - begin - 3);
        fs::copy_file(path, server() / "lib" / path.filename());
      }
    }
    for (const std::string& key : {server().string() + "/host", folder_ / "root"}) {
      ASSERT_EQ(run("/usr/bin/ssh-keygen", {"-q", "-t", "ed25519", "-N", "", "-f", key}).status, 0);
    }
    writeFile(server() / "user.pub", publicKey());
    const fs::path etc = camera().root() / "etc";
    writeFile(etc / "passwd",
              readFile(camera().root() / "usr/share/factory/etc/passwd") + kAccounts);
    writeFile(etc / "group", kGroups);
  }

  void startServer() {
    // Another process may take the port before the server does.
    for (int attempt = 0; attempt < 5; ++attempt) {
      port_ = freePort();
      writeFile(server() / "sshd_config", "Port " + port_ + "\n" + kConfig);
      const Result started = camera().exec({"env", "LD_LIBRARY_PATH=/opt/ssh/lib", "/opt/ssh/sshd",
                                            "-f", "/opt/ssh/sshd_config", "-E", "/opt/ssh/log"});
      // It writes the file once it listens.
      if (started.status == 0 &&
          eventually([] { return fs::exists(camera().root() / "run/sshd.pid"); },
                     std::chrono::seconds(5))) {
        return;
      }
    }
    FAIL() << readFile(server() / "log");
  }

  // An ssh client without the configuration and keys of the user who runs the test.
  void installClient() const {
    writeFile(folder_ / "known", "[127.0.0.1]:" + port_ + " " + readFile(server() / "host.pub"));
    writeFile(folder_ / "ssh",
              "#!/bin/sh\nexec /usr/bin/ssh -F /dev/null -i \"$KEY\" -o "
              "BatchMode=yes -o UserKnownHostsFile=" +
                  folder_ / "known" + " \"$@\"\n");
    fs::permissions(folder_ / "ssh", fs::perms(0755));
    fs::copy_file(folder_ / "root", folder_ / "nobody");
    fs::permissions(folder_ / "nobody", fs::perms(0600));
    ASSERT_EQ(chown((folder_ / "nobody").c_str(), kNobody, kNobody), 0);
  }

  const tests::TemporaryFolder folder_;
  std::string port_;
};

TEST_F(RemoteSystem, CommandsWorkAsOnCamera) {
  const Result stats = runAs("admin", {"stats", "memory"});
  EXPECT_EQ(stats.status, 0) << stats.err << readFile(server() / "log");
  EXPECT_THAT(stats.out, HasSubstr("Memory"));
  EXPECT_EQ(stats.err, "");
  EXPECT_EQ(runAs("member", {"settings", "name=Far", "region=x"}).status, 0);
  EXPECT_THAT(runAs("admin", {"settings"}).out, HasSubstr("Far"));
  EXPECT_EQ(runAs("admin", {"settings", "timezone=../x"}).status, 1);
  EXPECT_EQ(runAs("member", {"save", "--sync"}).status, 0);
  EXPECT_THAT(runAs("admin", {"service", "list"}).out, HasSubstr("kova_ctlserver  "));
  EXPECT_EQ(runAs("member", {"timezones", "ARGENTINA/sal"}).out, "America/Argentina/Salta\n");
  EXPECT_EQ(runAs("member", {"call", "NoSuchFunction"}).status, 1);
}

TEST_F(RemoteSystem, OutcomeOfTransferArrives) {
  for (const char* user : {"admin", "member"}) {
    const Result failed =
        runAs(user, {"get", "snapshot", "http://127.0.0.1:1/x", "--wait", "--timeout", "10"});
    EXPECT_EQ(failed.status, 1) << failed.err;
    EXPECT_THAT(failed.err, HasSubstr("TRANSFER_FAILED"));
  }
}

TEST_F(RemoteSystem, PermissionsAreThoseOfRemoteUser) {
  const Result named = runAs("member", {"listen", "kova_other"});
  EXPECT_EQ(named.status, 3);
  EXPECT_THAT(named.err, HasSubstr("only root may use the name"));
  const Result watched = runAs("member", {"monitor"});
  EXPECT_EQ(watched.status, 3);
  EXPECT_THAT(watched.err, HasSubstr("root is required; log in there as root"));
  const Result refused = runAs("outsider", {"stats"});
  EXPECT_EQ(refused.status, 3);
  EXPECT_THAT(refused.err,
              HasSubstr("run \"adduser outsider kova && /usr/libexec/kova_members\" as root"));
  EXPECT_THAT(refused.err, HasSubstr("cannot use the bus of outsider@127.0.0.1"));
}

TEST_F(RemoteSystem, LocalUserDoesNotMatter) {
  for (const char* user : {"admin", "member"}) {
    const Result stats = runAs(user, {"stats", "uptime"}, kNobody);
    EXPECT_EQ(stats.status, 0) << user << stats.err;
  }
  EXPECT_EQ(runAs("outsider", {"stats"}, kNobody).status, 3);
}

TEST_F(RemoteSystem, FailuresAreExplained) {
  const auto expect = [this](const char* user, const char* shown, const char* said) {
    const Result result = runAs(user, {"stats"});
    EXPECT_EQ(result.status, 3) << user;
    EXPECT_THAT(result.err, HasSubstr(shown)) << user;
    EXPECT_THAT(result.err, HasSubstr(said)) << user;
  };
  expect("nobody", "Permission denied (publickey)", "cannot log in to nobody@127.0.0.1:");
  expect("bare", "kovactl: not found", "no kovactl on bare@127.0.0.1:");
  expect("lost", "no bus at unix:path=/nonexistent/bus: \"sv status kova_bus\"",
         "cannot use the bus of lost@127.0.0.1:");
}

TEST_F(RemoteSystem, BoundKeyServesBusOnly) {
  writeFile(server() / "user.pub", "");
  writeFile(server() / "bound.pub", "restrict,command=\"kovactl bridge\" " + publicKey());
  EXPECT_EQ(runAs("bound", {"stats", "uptime"}).status, 0);
  const Result listed = runAs("bound", {"service", "list"});
  EXPECT_EQ(listed.out.find("kova_bus"), std::string::npos) << listed.out;
}

TEST_F(RemoteSystem, NoBridgeIsLeftBehind) {
  EXPECT_EQ(runAs("member", {"stats", "uptime"}).status, 0);
  EXPECT_TRUE(eventually([] {
    // kova_sounds_leds and kova_discovery_server run kovactl, too.
    return processesOf(camera(), "kovactl").size() == 2;
  }));
}

TEST_F(RemoteSystem, RebootIsSuccess) {
  const int boot = camera().boots();
  const Result reboot = runAs("admin", {"reboot"});
  EXPECT_EQ(reboot.status, 0) << reboot.err;
  EXPECT_TRUE(camera().waitForBoot(boot + 1));
}

}  // namespace
}  // namespace kova::system_test
