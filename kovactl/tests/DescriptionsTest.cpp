#include <gtest/gtest.h>

#include "ExitStatus.h"
#include "Json.h"
#include "commands/Monitor.h"
#include "commands/Settings.h"
#include "commands/Stats.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

using ipc::SeenMessage;
using variant::Variant;

Variant sampleStatistics() {
  return testing::jsonOf(
      R"({"memory":{"totalKb":2097152,"freeKb":1572864},"cpu":{"cnt":2,"arr":[12,3]},
          "cpuinfo":{"processor":"Soc \u001b[1m","features":"a b"},
          "loadavg":{"01min":0.1,"05min":0.25,"15min":1},
          "network":{"numifaces":2,"name":"eth0","bytesRx":1536,"bytesTx":0,
                     "upBps":10,"dnBps":2048},
          "wifi":{"signalStrength":-60,"quality":80},"uptime":{"sec":90061},
          "battery":{"percentage":80,"isCharging":true}})");
}

TEST(StatsTable, ShowsHumanUnits) {
  EXPECT_EQ(statsRows(sampleStatistics(), {}),
            (std::vector<Row>{
                {"Memory", "512 MiB of 2.0 GiB used (25 %), 1.5 GiB free"},
                {"Processors", "12 %  3 % busy"},
                {"Model", "Soc \\x1b[1m"},
                {"Load", "0.10  0.25  1.00  (1, 5, 15 min)"},
                {"Network", "eth0: down 2.0 KiB/s, up 10 B/s; received 1.5 KiB, sent 0 B"},
                {"Wi-Fi", "-60 dBm, quality 80 %"},
                {"Up", "1 d 01:01:01"},
                {"Battery", "80 %, charging"},
            }));
}

TEST(StatsTable, RadioWithoutLinkShowsNoLink) {
  for (const int level : {0, -100}) {
    const Variant wifi = Variant::Map{{"signalStrength", level}, {"quality", 2 * (level + 100)}};
    EXPECT_EQ(statsRows(Variant(Variant::Map{{"wifi", wifi}}), {}),
              (std::vector<Row>{{"Wi-Fi", "no link"}}));
  }
}

TEST(StatsTable, ToleratesMalformedSections) {
  Variant reply = sampleStatistics();
  for (const StatsSection& section : statsSections()) {
    reply[section.key] = "nonsense";
  }
  EXPECT_EQ(statsRows(reply, {}).size(), statsSections().size());
  EXPECT_TRUE(statsRows(Variant("nonsense"), {}).empty());
}

TEST(StatsTable, FlagsMatchRequest) {
  ipc::messages::GetSystemStats request;
  request.NormalizeFields();
  for (const StatsSection& section : statsSections()) {
    EXPECT_NE(request.find(section.flag), nullptr) << section.flag;
  }
}

TEST(DeviceSettings, InvalidSettingsAreRefused) {
  Variant request = Variant::Map{};
  std::string error;
  EXPECT_FALSE(fillSettings(Variant(Variant::Map{{"zone", "x"}}), request, error));
  EXPECT_EQ(error,
            "\"zone\" is not a setting: choose name, timezone, region, timelapse or sound-on-boot");
  EXPECT_FALSE(fillSettings(Variant(Variant::Map{{"timelapse", "5"}}), request, error));
  EXPECT_EQ(error, "timelapse must be on or off: write timelapse=on|off");
  EXPECT_FALSE(fillSettings(Variant(Variant::Map{{"name", 5}}), request, error));
  EXPECT_EQ(error, "write name=VALUE");
}

TEST(DeviceSettings, ReplyHasReadableLabels) {
  const Variant payload = Variant::Map{
      {"name", "Po\nrch"}, {"timezone", ""}, {"timelapseminutes", 1}, {"soundOnBoot", false}};
  EXPECT_EQ(settingsRows(payload), (std::vector<Row>{{"Name", "Po\\nrch"},
                                                     {"Time zone", ""},
                                                     {"Time-lapse", "on"},
                                                     {"Sound on boot", "off"}}));
}

TEST(DeviceSettings, SwitchIgnoresCase) {
  bool value = false;
  for (const char* word : {"on", "ON", "yes", "True", "1"}) {
    value = false;
    EXPECT_TRUE(parseSwitch(word, value) && value) << word;
  }
  for (const char* word : {"off", "No", "false", "0"}) {
    value = true;
    EXPECT_TRUE(parseSwitch(word, value) && !value) << word;
  }
  EXPECT_FALSE(parseSwitch("", value));
  EXPECT_FALSE(parseSwitch("2", value));
}

SeenMessage passwordChange() {
  ipc::messages::ChangeUsernamePassword request;
  request.username("admin");
  request.passwordOld("hunter2");
  request.passwordNew("swordfish");
  request.id(7);
  request.NormalizeFields();
  return {SeenMessage::Kind::Call, "client.a", "kova_ctlserver", "", request};
}

TEST(MessageLine, MasksPasswords) {
  for (const std::string& line : {messageLine(passwordChange(), {0, 1000}),
                                  messageRecord(passwordChange(), {0, 1000}).toJson()}) {
    EXPECT_EQ(line.find("hunter2"), line.npos) << line;
    EXPECT_EQ(line.find("swordfish"), line.npos) << line;
    EXPECT_NE(line.find("********"), line.npos) << line;
  }
}

TEST(MessageLine, OmitsDefaultsOfEnvelope) {
  const std::string line = messageLine(passwordChange(), {0, 1000});
  EXPECT_NE(line.find("client.a -> kova_ctlserver ChangeUsernamePassword id=7"), line.npos) << line;
  EXPECT_NE(line.find(" responseExpected=true username=\"admin\""), line.npos) << line;
  EXPECT_EQ(line.find("transactionId"), line.npos) << line;
}

TEST(MessageLine, IsAlwaysOneLine) {
  const SeenMessage seen{SeenMessage::Kind::Broadcast, "a\nb", "", "",
                         Variant(Variant::Map{{"functionName", "F\x1b[2J"}, {"k\n", "v\n"}})};
  const std::string line = messageLine(seen, {0, 0});
  EXPECT_NE(line.find("a\\nb -> * F\\x1b[2J k\\n=\"v\\n\""), line.npos) << line;
}

TEST(MessageLine, AnswersAndErrorsDiffer) {
  Variant answer = Variant::Map{{"functionName", "__response__"},
                                {"requestId", std::uint64_t{7}},
                                {"statusCode", std::uint64_t{1}}};
  EXPECT_NE(messageLine({SeenMessage::Kind::Answer, "s", "c", "", answer}, {0, 0})
                .find("s -> c answer requestId=7 statusCode=1"),
            std::string::npos);
  EXPECT_NE(messageLine({SeenMessage::Kind::Answer, "s", "c", "", Variant(Variant::Map{})}, {0, 0})
                .find("s -> c accepted, empty answer"),
            std::string::npos);
  EXPECT_NE(messageLine({SeenMessage::Kind::Error, "s", "c", "kova.Error.X: no", {}}, {0, 0})
                .find("s -> c error kova.Error.X: no"),
            std::string::npos);
}

TEST(ExitStatus, DBusErrorsAreMapped) {
  EXPECT_EQ(exitForError("org.freedesktop.DBus.Error.ServiceUnknown"), ExitStatus::Unreachable);
  EXPECT_EQ(exitForError("org.freedesktop.DBus.Error.AccessDenied"), ExitStatus::Unreachable);
  EXPECT_EQ(exitForError("org.freedesktop.DBus.Error.NoReply"), ExitStatus::NoAnswer);
  EXPECT_EQ(exitForError("kova.Error.UnknownFunction"), ExitStatus::Refused);
  EXPECT_EQ(exitForError("kova.Error.InvalidMessage"), ExitStatus::Refused);
}

}  // namespace
}  // namespace kova::ctl
