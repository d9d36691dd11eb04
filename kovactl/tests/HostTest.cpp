#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>

#include "../../platform/utils/process/tests/Processes.h"
#include "../../platform/utils/process/tests/Script.h"
#include "Child.h"
#include "FakeCamera.h"
#include "Peer.h"
#include "kova/utils/Process.h"

namespace kova::ctl::testing {
namespace {

using ::testing::HasSubstr;

/// Replaces ssh by a script that records its arguments and its ignored signals.
class Host : public BusTest {
 protected:
  void SetUp() override {
    pathBefore_ = std::getenv("PATH");
    setenv("PATH", (folder_.path() + ":" + pathBefore_).c_str(), 1);
    become(bridgeCommand(bus_.address()));
  }
  void TearDown() override {
    setenv("PATH", pathBefore_.c_str(), 1);
    unsetenv("RELAY_DELAY_S");
  }

  void become(const std::string& command) const {
    writeScript(folder_, "ssh",
                "echo \"$@\" >'" + folder_ / "arguments" + "'\ngrep SigIgn /proc/self/status >'" +
                    folder_ / "ignored" + "'\n" + command);
  }
  std::string left(const std::string& name) const { return tests::readText(folder_ / name); }

  tests::TemporaryFolder folder_;
  std::string pathBefore_;
};

TEST_F(Host, BridgeCarriesConnection) {
  const Peer peer(answering(0));
  const Result result = run({"-H", "me@cam:2222", "call", "GetSystemStats", "--json"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\"statusCode\": 0"));
  EXPECT_EQ(left("arguments"), "-xT -p 2222 -- me@cam kovactl bridge\n");
}

// As by ssh -L.
TEST_F(Host, ForwardedSocketIsUsed) {
  const Peer peer(answering(0, variant::Variant::Map{{"n", 5}}));
  const std::string here = bus_.socket() + ".fwd";
  ASSERT_TRUE(utils::runDaemon(nullptr, nullptr, nullptr, KOVACTL_RELAY, 2, bus_.socket().c_str(),
                               here.c_str()));
  ASSERT_TRUE(tests::eventually([&] { return std::filesystem::is_socket(here); }));
  // The socket may exist before it accepts connections.
  Result result{3, "", ""};
  for (int attempt = 0; result.status == 3 && attempt < 100; ++attempt) {
    result = run({"--bus", "unix:path=" + here, "call", "Anything"});
  }
  utils::endDaemon(KOVACTL_RELAY);
  expectOutput(result, 0, "n  5\n");
}

TEST_F(Host, InspectingCommandsRunThere) {
  become("echo there; exit 1");
  for (const auto& [typed, sent] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"-H", "cam", "service", "list"}, "-xT -- cam kovactl service list\n"},
           {{"timezones", "a b", "--json", "--host", "cam"},
            "-xT -- cam kovactl timezones 'a b' '--json'\n"}}) {
    expectOutput(run(typed), 1, "there\n");
    EXPECT_EQ(left("arguments"), sent);
  }
}

TEST_F(Host, RemoteDenialAdvisesForRemoteHost) {
  FakeCamera camera;
  camera.behave({.readError = "org.freedesktop.DBus.Error.AccessDenied"});
  expectFailure(run({"-H", "bob@cam", "info"}), 3,
                "may use the bus of bob@cam: run \"adduser USER kova && "
                "/usr/libexec/kova_members\" there");
}

TEST_F(Host, RefusedFiguresFailMetrics) {
  FakeCamera camera;
  camera.behave({.readError = "org.freedesktop.DBus.Error.LimitsExceeded"});
  for (const char* what : {"the description of the camera", "the list of transfers"}) {
    const Result result = run({"-H", "cam", "metrics"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, HasSubstr(std::string("cannot get ") + what + ": no answer to this"));
    camera.publish("7", {});
  }
  expectFailure(run({"-H", "cam", "transfers"}), 1, "cannot get the list of transfers");
}

TEST_F(Host, MetricsPrintReadableFigures) {
  FakeCamera camera;
  camera.behave({.statisticsStatus = 1});
  const Result result = run({"-H", "cam", "metrics"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out, HasSubstr("kova_uptime_seconds 61\n"));
  EXPECT_THAT(result.err, HasSubstr("the missing figures could not be read"));
}

TEST_F(Host, UnknownStatusIsReported) {
  become("exit 77");
  const Result result = run({"-H", "cam", "service", "list", "--json"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err, "kovactl: kovactl there ended with status 77\n");
  EXPECT_THAT(result.out, HasSubstr("\"code\": \"unreachable\""));
}

TEST_F(Host, EndOfSshIsExplained) {
  const std::pair<const char*, const char*> ends[] = {
      {"exit 255", "cannot log in to cam:22, ssh says why above: \"ssh -p 22 cam\" must work"},
      {"exit 127", "no kovactl on cam:22: install the package kovactl there"},
      {"exit 126", "no kovactl on cam:22"},
      {"exit 2", "kovactl on cam:22 is too old for this: update it"},
      {"exit 3", "cannot use the bus of cam:22: kovactl there says why above"},
      {"exit 0", "the connection to cam:22 failed"},
      {"echo Welcome; sleep 1", "does the shell there print something when it starts?"},
  };
  for (const auto& [command, said] : ends) {
    become(std::string("echo reason >&2; ") + command);
    for (const char* asking : {"stats", "monitor"}) {
      const Result result = run({"--host", "cam:22", asking});
      EXPECT_EQ(result.status, 3) << command;
      EXPECT_THAT(result.err, HasSubstr("reason\n")) << "messages of ssh are shown";
      EXPECT_THAT(result.err, HasSubstr(said)) << command;
    }
  }
  become("exit 255");
  expectFailure(run({"--host", "cam", "service", "list"}), 3, "cannot log in to cam");
}

TEST_F(Host, MissingSshIsNamed) {
  setenv("PATH", "/nonexistent", 1);
  for (const char* typed : {"stats", "timezones"}) {
    expectError(run({"--host", "cam", typed}), 3,
                "kovactl: cannot run ssh: install it (package openssh-client)\n");
  }
}

TEST_F(Host, WrongHostsAreRefused) {
  const Peer peer(answering(0));
  for (const char* text : {"", "-oProxyCommand=id", "a;b", "cam:x"}) {
    const Result result = run({"--host", text, "stats"});
    EXPECT_EQ(result.status, 2) << text;
    EXPECT_THAT(result.err, HasSubstr("is not a host")) << text;
    EXPECT_THAT(run({"--json", "--host", text, "stats"}).out, HasSubstr("\"code\": \"usage\""));
  }
  EXPECT_EQ(run({"--host", "cam", "--bus", bus_.address(), "stats"}).status, 2);
  EXPECT_EQ(left("arguments"), "(none)") << "ssh was not started";
}

TEST_F(Host, CtrlCDoesNotReachSsh) {
  Child child({"--host", "cam", "listen", "client.me"});
  sendUntilTaken("client.me");
  const std::string ignored = left("ignored");
  const unsigned long mask = std::stoul(ignored.substr(ignored.find(':') + 1), nullptr, 16);
  EXPECT_NE(mask & (1UL << (SIGINT - 1)), 0U);
  EXPECT_EQ(mask & (1UL << (SIGTERM - 1)), 0U);
  child.signal(SIGINT);
  EXPECT_EQ(child.wait().status, 0);
}

TEST_F(Host, StopSignalEndsLogin) {
  become("exec sleep 60");
  for (const auto& [signal, status] : {std::pair(SIGINT, 130), std::pair(SIGTERM, 143)}) {
    for (const char* asking : {"stats", "monitor"}) {
      std::filesystem::remove(folder_ / "ignored");
      Child child({"--host", "cam", asking});
      ASSERT_TRUE(tests::eventually([&] { return left("ignored").starts_with("SigIgn"); }));
      child.signal(signal);
      expectError(child.wait(), status, "");
    }
  }
}

TEST_F(Host, UnansweredRequestArrives) {
  const Peer peer(takingNote());
  setenv("RELAY_DELAY_S", "0.3", 1);
  become(std::string("exec ") + KOVACTL_RELAY + " " + bus_.socket());
  const Result result = run({"--host", "cam", "call", "SaveToFlash", "--no-reply"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(peer.awaitReceived(1));
}

// Output of the other machine may contain terminal control sequences.
TEST_F(Host, OutputOfOtherMachineIsEscaped) {
  become("printf 'a\\033[2Jb\\tc\\n\\nd'; printf 'e\\033]0;x\\007\\r\\n' >&2; exit 1");
  const Result result = run({"--host", "cam", "timezones"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "a\\x1b[2Jb\\tc\n\nd\n");
  EXPECT_EQ(result.err, "e\\x1b]0;x\\x07\n");
  become("head -c 300000 /dev/zero | tr '\\0' x");
  const Result flood = run({"--host", "cam", "service", "list"});
  EXPECT_EQ(flood.status, 0);
  EXPECT_EQ(std::ranges::count(flood.out, 'x'), 300000);
}

TEST_F(Host, RemoteBackgroundProcessCausesNoDelay) {
  become("sleep 60 & echo there");
  expectOutput(run({"--host", "cam", "timezones"}), 0, "there\n");
}

// The connection breaks with the request in it, before the bus receives it.
TEST_F(Host, PossiblyLostRebootFails) {
  const MutePeer peer;
  setenv("RELAY_END_AT", "Reboot", 1);
  become(std::string("exec ") + KOVACTL_RELAY + " " + bus_.socket());
  const Result result = run({"--host", "cam", "reboot"});
  unsetenv("RELAY_END_AT");
  expectOutput(result, 3, "");
  EXPECT_THAT(result.err, HasSubstr("lost before the bus had confirmed the request"));
}

TEST_F(Host, StopSignalThatEndsSshTooIsReported) {
  FakeCamera camera;
  camera.publish("7", {});
  std::promise<void> asked;
  std::promise<void> ended;
  camera.behave({.beforeRead = [&] {
    asked.set_value();
    ended.get_future().wait_for(std::chrono::seconds(20));
  }});
  become("echo $$ >'" + folder_ / "pid" + "'; " + bridgeCommand(bus_.address()));
  Child child({"--host", "cam", "transfers"});
  ASSERT_EQ(asked.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  child.signal(SIGSTOP);
  kill(std::stoi(left("pid")), SIGKILL);
  child.signal(SIGTERM);
  child.signal(SIGCONT);
  const Result result = child.wait();
  ended.set_value();
  expectError(result, 143, "");
}

TEST_F(Host, LossIsReported) {
  become("echo $$ >'" + folder_ / "pid" + "'; " + bridgeCommand(bus_.address()));
  Child child({"--host", "cam", "listen", "client.me"});
  sendUntilTaken("client.me");
  kill(std::stoi(left("pid")), SIGKILL);
  expectFailure(child.wait(), 3, "the connection to the bus was lost");
}

}  // namespace
}  // namespace kova::ctl::testing
