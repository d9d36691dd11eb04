#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "../../platform/utils/tests/TemporaryFolder.h"
#include "Child.h"
#include "Peer.h"

namespace kova::ctl::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using variant::Variant;

using Words = std::vector<std::string>;

/// A mistyped command line and its expected error.
struct Mistake {
  Words typed;
  const char* said;  ///< part of the error message
  int status = 2;
};

class Refusals : public BusTest {
 protected:
  static void expect(const Mistake& mistake) {
    const Result result = run(mistake.typed);
    const std::string typed = ::testing::PrintToString(mistake.typed);
    EXPECT_EQ(result.status, mistake.status) << typed << result.err;
    EXPECT_TRUE(mistake.status != 2 || result.out.empty()) << typed << result.out;
    EXPECT_THAT(result.err, StartsWith("kovactl: ")) << typed;
    EXPECT_THAT(result.err, HasSubstr(mistake.said)) << typed;
    // The second line of a usage error points to the help.
    EXPECT_LE(std::ranges::count(result.err, '\n'), mistake.status == 2 ? 2 : 1)
        << typed << result.err;
    EXPECT_EQ(result.err.find('\\'), std::string::npos) << typed << result.err;
  }
};

TEST_F(Refusals, WrongUsageIsExplained) {
  const Peer peer(answering(0));
  const Mistake mistakes[] = {
      {{}, "a command is missing\nTry \"kovactl --help\".\n"},
      {{"stat"}, "\"stat\" is not a command: did you mean \"stats\"?"},
      {{"stats", "--wach"}, "\"--wach\" is not an option: did you mean \"--watch\"?"},
      {{"--jsn", "stats"}, "\"--jsn\" is not an option: did you mean \"--json\"?"},
      {{"--watch", "stats"}, "\"--watch\" belongs after \"kovactl stats\"\nTry \"kovactl"},
      {{"-y", "reset-defaults"}, "\"-y\" belongs after \"kovactl reset-defaults\""},
      {{"--delay=5", "reboot"}, "\"--delay\" belongs after \"kovactl reboot\""},
      {{"--buss", "foo", "stats"}, "did you mean \"--bus\"?"},
      {{"service"}, "a command is missing: list, start or stop\nTry \"kovactl service --help\""},
      {{"service", "strat", "x"}, "did you mean \"start\"?"},
      {{"service", "start"}, "NAME is missing\nTry \"kovactl service start --help\".\n"},
      {{"save", "now"}, "unexpected argument \"now\""},
      {{"stats", "--timeout"}, "--timeout needs a value\n"},
      {{"stats", "--timeout", "0"}, "must be more than 0"},
      {{"stats", "--timeout", "soon"},
       "is not a duration: write 5 or 5s for seconds, 500ms, 2min or 1h"},
      {{"stats", "--watch", "0"}, "--watch: must be more than 0, for example 0.5"},
      {{"stats", "--watch", "5x"}, "write 5 or 5s for seconds"},
      {{"stats", "netwrok"}, "\"netwrok\" is not a section: did you mean \"network\"?"},
      {{"settings", "Porch"}, "\"Porch\" is not a setting: write SETTING=VALUE"},
      {{"settings", "name="}, "name cannot be empty: write name=VALUE"},
      {{"settings", "timezone="}, "\"kovactl timezones\" lists them"},
      {{"settings", "nmae=x"}, "\"nmae\" is not a setting: did you mean \"name\"?"},
      {{"settings", "timelapse=x"}, "write timelapse=on|off"},
      {{"reboot", "--delay", "597h"}, "at most 596h"},
      {{"reboot", "--delay", "1500"}, "write 1500s if seconds are meant, 1500ms if millisec"},
      {{"get", "snapshot", "/tmp/x"}, "write http://HOST/PATH or https://HOST/PATH"},
      {{"get", "snapshot", "ftp://x/y"},
       "\"ftp://x/y\" is not a URI that the camera can use: write http://HOST/PATH or "
       "https://HOST/PATH"},
      {{"firmware", "https://"}, "write http://HOST/PATH or https://HOST/PATH"},
      {{"get", "event-snapshot", "http://x/"}, "a name such as motionsnap_12.jpg"},
      {{"get", "event-snapshot", "http://x/", "--filename", "foo.jpg"}, "such as motionsnap_12"},
      {{"get", "event-snapshot", "http://x/", "--filename", "motionsnap_1x.jpg"}, "such as mo"},
      {{"get", "event-heatmap", "http://x/", "--filename", "motionsnap_1.jpg"}, "heatmap_12.png"},
      {{"get", "picture", "http://x/"},
       "kovactl: \"picture\" is not a file to get: choose snapshot, support, event-sna"},
      {{"put", "soud", "http://x/"},
       "kovactl: \"soud\" is not a file to put: did you mean \"sound\"?"},
      {{"put", "logo", "http://x/", "--file", "/tmp"}, "kovactl: /tmp is a folder\n", 6},
      {{"settings", "name=a\nb"}, "name cannot contain a line break"},
      {{"user", "passwd", "--name", "n"}, "no terminal to prompt on: use --stdin, or --old-file"},
      {{"user", "passwd", "--stdin", "--name", "-x"}, "--name: \"-x\" is not a name"},
      {{"user", "passwd", "--stdin", "--name", "a b"}, "at most 32 letters, digits, \"_\", \".\""},
      {{"put", "logo", "http://x/"}, "--file LOCAL, a copy of the file, or --hash MD5"},
      {{"help", "stas"}, "did you mean \"stats\"?\nTry \"kovactl --help\".\n"},
      {{"help", "xyzzy"}, "\"xyzzy\" is not a command\nTry \"kovactl --help\".\n"},
      {{"help", "service", "begin"}, "\"begin\" is not a command: choose list, start or stop"},
      {{"timezones", "xyzzy"}, "\"kovactl timezones\" lists all"},
      {{"call"}, "FUNCTION is missing"},
      {{"call", "F", "novalue"}, "\"novalue\" is neither key=text nor key:=JSON"},
      {{"call", "F", "functionName=G"}, "\"functionName\" is given twice"},
      {{"service", "restart", "x"}, "\"restart\" is not a command"},
      {{"put", "logo", "http://x/", "--hash", "12"}, "must be an MD5 digest of 32"},
      {{"put", "logo", "http://x/", "--hash", std::string(32, '0'), "--file", "x"},
       "give --hash or --file, not both"},
      {{"get", "snapshot", "http://x/", "--filename", "x"}, "snapshot takes no --filename"},
      {{"get", "snapshot", "http://x/", "--field", "nosign"}, "--field: write KEY=VALUE"},
      {{"get", "snapshot", "http://x/", "--field", "a=b", "--field", "c:=1"},
       "such as camera=porch: the value is always text\n"},
      {{"get", "snapshot", "http://x/", "--field", "a=b", "--field", "a=c"}, "is given twice"},
      {{"firmware", "http://x/", "--timeout", "0"}, "must be more than 0"},
      {{"reboot", "--delay", "-1"}, "\"-1\" is not a duration"},
      {{"reset-defaults"}, "use --yes"},
      {{"user", "passwd", "--stdin", "--old-file", "x"}, "--old-file excludes --stdin"},
  };
  for (const Mistake& mistake : mistakes) {
    expect(mistake);
  }
  EXPECT_TRUE(peer.received().empty()) << "a request was sent";
}

TEST_F(Refusals, UnusableBusIsExplained) {
  tests::writeText(bus_.socket() + ".gone", "");
  const std::string deaf = bus_.address() + ".gone";
  const std::string far = "unix:path=/" + std::string(200, 'x');
  const Mistake mistakes[] = {
      {{"--bus", "foo", "stats"}, "write one such as unix:path=/run/kova/bus"},
      {{"--bus", "foo", "monitor"}, "write one such as unix:path=/run/kova/bus"},
      {{"--bus", "unix:path=/nonexistent/bus", "stats"},
       "no bus at unix:path=/nonexistent/bus: run kovactl on the camera",
       3},
      {{"--bus", deaf, "stats"}, "\"sv status kova_bus\" (systemd: \"systemctl", 3},
      {{"--bus", far, "stats"}, "at most 107 bytes", 3},
      {{"--bus", "unixexec:path=/bin/false", "stats"}, "kovactl(1) shows examples", 3},
      {{"stats"},
       "\"sv status kova_ctlserver\" (systemd: \"systemctl status kova_ctlserver\") on the camera "
       "shows whether it runs",
       3},
      {{"call", "X", "--to", "kova_ctlservr"}, "did you mean \"kova_ctlserver\"?", 3},
      {{"listen", "a..b"}, "choose one such as client.me", 3},
  };
  for (const Mistake& mistake : mistakes) {
    expect(mistake);
  }
  const Peer taken(takingNote(), "client.me");
  expect({{"listen", "client.me"},
          "the name \"kova.client.me\" is taken on the bus: choose another",
          3});
}

TEST_F(Refusals, RefusedZoneSuggestsInstalledZone) {
  if (run({"timezones", "paris"}).out != "Europe/Paris\n") {
    GTEST_SKIP() << "no zones are installed here";
  }
  const Peer peer(answering(1));
  expect({{"settings", "timezone=europe/paris"}, "did you mean \"Europe/Paris\"?", 1});
  expect({{"settings", "region=europe/paris"}, "did you mean \"Europe/Paris\"?", 1});
  expect(
      {{"settings", "region=US"}, "could not change the settings: a value was rejected; see ", 1});
  expect({{"settings", "timezone=Europe/Paris"}, "see the camera's log", 1});
}

TEST_F(Refusals, FolderOfOtherMachineCausesWarning) {
  EXPECT_THAT(
      run({"timezones", "--json"}).err,
      HasSubstr("timezones reads /usr/share/zoneinfo of this machine, not of the camera at " +
                bus_.address() + ": use --host\n"));
  EXPECT_THAT(run({"service", "list"}).err,
              HasSubstr("service list reads the services of this machine"));
  EXPECT_THAT(run({"timezones", "--bus", "unix:path=/run/kova/bus"}).err,
              Not(HasSubstr("warning")));
}

TEST_F(Refusals, ServiceNeededByCameraIsReported) {
  const Peer peer(answering(1));
  expect({{"service", "stop", "kova_bus"},
          "could not stop the service: kova_bus is never stopped",
          1});
  expect({{"service", "start", "kova_bus"}, "\"kova_bus\"", 1});
  expect({{"service", "stop", "lights"}, "\"lights\"", 1});
}

TEST_F(Refusals, ModelWithoutTimelapseIsReported) {
  Peer peer(answering(0, Variant::Map{{"name", "Porch"}}));
  expect({{"settings", "timelapse=on"}, "this model has no time-lapse", 1});
  EXPECT_EQ(run({"settings", "name=Porch"}).status, 0);
}

TEST_F(Refusals, DoubtfulFieldsCauseWarning) {
  Peer peer(answering(0));
  const Result result = run({"call", "GetSystemStats", "wfi:=true"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "kovactl: warning: GetSystemStats has no field \"wfi\": it is ignored; did you "
            "mean \"wifi\"?\n");
  EXPECT_EQ(*peer.received().front().find("wfi"), Variant(true));
  EXPECT_EQ(run({"call", "GetSystemStats", "wifi:=true"}).err, "");
}

TEST_F(Refusals, UnknownFunctionSuggestsKnownOne) {
  Peer peer([](Peer::Request&, ipc::Ipc&, bool& rejected) { rejected = true; });
  expect({{"call", "getsystemstats"}, "has no function getsystemstats: did you mean GetSyst", 1});
}

TEST(Denial, UserOutsideGroupGetsAdvice) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can become another user";
  }
  if (!tests::readText(KOVACTL_PROGRAM)
           .starts_with("\x7f"
                        "ELF")) {
    GTEST_SKIP() << "the emulator's script needs files that other users cannot read";
  }
  const ipc::testing::PrivateBus bus;
  const std::string folder = bus.socket() + ".d";
  std::filesystem::create_directory(folder);
  const std::string program = folder + "/kovactl";
  std::filesystem::copy_file(KOVACTL_PROGRAM, program);
  std::filesystem::permissions(folder, std::filesystem::perms{0755});
  const std::string asNobody = "setpriv --reuid 65534 --regid 65534 --clear-groups " + program;
  const Peer peer(answering(0));
  const auto output = [&](const std::string& arguments) {
    const std::string file = folder + "/output";
    const std::string line = asNobody + " " + arguments + " >" + file + " 2>&1";
    EXPECT_EQ(WEXITSTATUS(std::system(line.c_str())), 3) << line;
    return tests::readText(file);
  };
  EXPECT_THAT(output("stats"),
              ::testing::MatchesRegex(
                  "kovactl: only root and members of the group kova may use this "
                  "bus: run \"adduser [^ ]+ kova && /usr/libexec/kova_members\" as root, then "
                  "log in again\n"));
  EXPECT_THAT(output("listen client.me"), HasSubstr("kova_members\" as root, then log in again\n"));
  EXPECT_EQ(
      output("listen kova_x"),
      "kovactl: only root may use the name \"kova_x\" on the bus: choose one such as client.me\n");
  EXPECT_EQ(output("monitor"), "kovactl: cannot monitor the bus: root is required; use sudo\n");
  std::filesystem::permissions(bus.socket(), std::filesystem::perms{0600});
  EXPECT_THAT(output("stats"), HasSubstr("kova_members\" as root, then log in again\n"));
  EXPECT_TRUE(peer.received().empty());
}

}  // namespace
}  // namespace kova::ctl::testing
