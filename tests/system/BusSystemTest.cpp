#include <cmath>
#include <limits>
#include <map>
#include <set>

#include "BusClient.h"
#include "RawConnection.h"
#include "SharedCamera.h"

namespace kova::system_test {
namespace {

using namespace std::string_literals;

constexpr char kUnknownFunction[] = "kova.Error.UnknownFunction";
constexpr char kInvalidMessage[] = "kova.Error.InvalidMessage";
constexpr std::size_t kMebibyte = 1'048'576;

class BusSystem : public UnharmedCamera {
 protected:
  static Result busctl(std::vector<std::string> arguments) {
    const std::vector<std::string> call = {"busctl", "--address=unix:path=/run/kova/bus",
                                           "call",   "kova.kova_ctlserver",
                                           "/kova",  "kova.Ipc1",
                                           "Send"};
    arguments.insert(arguments.begin(), call.begin(), call.end());
    return camera().exec(arguments);
  }
};

TEST_F(BusSystem, BusctlGetsReply) {
  const Result result = busctl(
      {"a{sv}", "2", "functionName", "s", "GetSystemStats", "responseExpected", "b", "true"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("\"statusCode\" t 0"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("\"totalKb\" u "), std::string::npos) << result.out;
}

TEST_F(BusSystem, BusctlGetsErrorForUnknownFunctionAndNonMapBody) {
  EXPECT_NE(busctl({"a{sv}", "1", "functionName", "s", "MakeCoffee"}).status, 0);
  EXPECT_NE(busctl({"s", "GetSystemStats"}).status, 0);
  BusClient client(camera().busAddress());
  EXPECT_EQ(client.call(request("MakeCoffee")), kUnknownFunction);
  EXPECT_EQ(client.call(request("reboot")), kUnknownFunction);
}

TEST_F(BusSystem, BodiesOtherThanOneMapAreInvalid) {
  const auto append = [](const char* types, auto... values) -> Append {
    return
        [=](sd_bus_message* message) { return sd_bus_message_append(message, types, values...); };
  };
  const std::map<std::string, Append> bodies = {
      {"nothing", [](sd_bus_message*) { return 0; }},
      {"text", append("s", "GetSystemStats")},
      {"array", append("as", 1, "GetSystemStats")},
      {"variant", append("v", "a{sv}", 0)},
      {"two maps", append("a{sv}a{sv}", 0, 0)},
      {"map and text", append("a{sv}s", 0, "more")},
      {"numbered map", append("a{us}", 1, 1, "one")},
      {"structure", append("(s)", "GetSystemStats")},
      {"foreign structure", append("a{sv}", 1, "functionName", "(ii)", 1, 2)},
      {"numbered map within", append("a{sv}", 1, "functionName", "a{us}", 1, 1, "one")},
  };
  BusClient client(camera().busAddress());
  for (const auto& [name, body] : bodies) {
    EXPECT_EQ(client.call(body), kInvalidMessage) << name;
  }
}

TEST_F(BusSystem, NestingBeyond32LevelsIsRefused) {
  BusClient client(camera().busAddress());
  EXPECT_EQ(client.call(request("GetSystemStats", {{"deep", nestedArrays(31)}})), "status 0");
  EXPECT_EQ(client.call(request("GetSystemStats", {{"deep", nested(30)}})), "status 0");
  EXPECT_EQ(client.call(request("GetSystemStats", {{"deep", nestedArrays(32)}})), kInvalidMessage);
  EXPECT_EQ(client.call(request("GetSystemStats")), "status 0");
  // D-Bus itself takes 64 containers and shows out who sends more.
  EXPECT_EQ(client.call(request("GetSystemStats", {{"deep", nested(32)}})), "lost");
}

TEST_F(BusSystem, BodiesOverOneMebibyteAreRefused) {
  BusClient client(camera().busAddress());
  const auto ofSize = [](std::size_t size) {
    return request("GetSystemStats", {{"unknown", text(std::string(size, 'x'))}});
  };
  EXPECT_EQ(client.call(ofSize(kMebibyte - 256)), "status 0");
  EXPECT_EQ(client.call(ofSize(kMebibyte)), kInvalidMessage);
  // The bus shows out who exceeds its own limit; others are served as before.
  EXPECT_EQ(client.call(ofSize(2 * kMebibyte)), "lost");
  EXPECT_EQ(BusClient(camera().busAddress()).call(ofSize(10)), "status 0");
}

// The response would carry the name back and thus be too large.
TEST_F(BusSystem, OneMebibyteNameGivesError) {
  BusClient client(camera().busAddress());
  EXPECT_EQ(
      client.call(request("GetSystemStats", {{"from", text(std::string(kMebibyte - 256, 'x'))}})),
      "org.freedesktop.DBus.Error.Failed");
  EXPECT_EQ(client.call(request(std::string(kMebibyte - 256, 'x'))), kUnknownFunction);
}

TEST_F(BusSystem, MissingAndMistypedNamesAreUnknownFunctions) {
  BusClient client(camera().busAddress());
  EXPECT_EQ(client.call(map({})), kUnknownFunction);
  EXPECT_EQ(client.call(map({{"functionName", value('u', 7U)}})), kUnknownFunction);
  EXPECT_EQ(client.call(map({{"functionName", flag(true)}})), kUnknownFunction);
  EXPECT_EQ(client.call(map({{"functionName", nested(3)}})), kUnknownFunction);
  EXPECT_EQ(client.call(request("")), kUnknownFunction);
  for (const auto& name : {"\xff\xfe"s, "GetSystemStats\0"s, "\0"s, "GetSystem\x80Stats"s}) {
    EXPECT_EQ(client.call(map({{"functionName", bytes(name)}})), kUnknownFunction);
  }
  // What is text is text, however it came.
  EXPECT_EQ(client.call(
                map({{"functionName", bytes("GetSystemStats")}, {"responseExpected", flag(true)}})),
            "status 0");
}

TEST_F(BusSystem, TenThousandUnknownKeysChangeNothing) {
  constexpr int kKeys = 10'000;
  std::vector<Entry> entries;
  entries.reserve(kKeys);
  for (int i = 0; i < kKeys; ++i) {
    entries.emplace_back("unknown" + std::to_string(i), value('i', i));
  }
  BusClient client(camera().busAddress());
  EXPECT_EQ(client.call(request("GetSystemStats", entries)), "status 0");
  EXPECT_EQ(client.call(request("MakeCoffee", entries)), kUnknownFunction);
}

std::vector<Append> oddValues() {
  using Int64 = std::numeric_limits<std::int64_t>;
  return {value('n', std::numeric_limits<std::int16_t>::min()),
          value('q', std::numeric_limits<std::uint16_t>::max()),
          value('y', 255),
          value('i', std::numeric_limits<std::int32_t>::min()),
          value('i', std::numeric_limits<std::int32_t>::max()),
          value('u', std::numeric_limits<std::uint32_t>::max()),
          value('x', Int64::min()),
          value('x', Int64::max()),
          value('t', std::numeric_limits<std::uint64_t>::max()),
          value('d', std::nan("")),
          value('d', std::numeric_limits<double>::infinity()),
          value('d', -std::numeric_limits<double>::max()),
          text(""),
          text("%s%n%x"),
          text("../../etc/passwd"),
          text("two\nlines=1"),
          text("\xf0\x9f\x93\xb7"),
          bytes("\xff\xc0\x80"),
          bytes("nul\0nul"s),
          flag(false),
          nested(5),
          [](sd_bus_message* message) {
            return sd_bus_message_append(message, "v", "(xx)", Int64::min(), Int64::max());
          },
          [](sd_bus_message* message) { return sd_bus_message_append(message, "v", "g", ""); }};
}

// Whatever stands in the fields. Not among the functions are those that end the server or the boot.
TEST_F(BusSystem, OddFieldValuesGiveOneAnswerEach) {
  const std::vector<std::string> functions = {"GetSystemStats",
                                              "ChangeDeviceSettings",
                                              "UpdateFirmwareRequest",
                                              "GetRequest",
                                              "PutRequest",
                                              "ChangeUsernamePassword",
                                              "EnableUsernamePassword",
                                              "DisableUsernamePassword",
                                              "StartService",
                                              "StopService"};
  // The flag that asks for the response is odd as well, so that what is answered may be taken only.
  const std::vector<std::string> keys = {"id",
                                         "timeStamp",
                                         "from",
                                         "to",
                                         "queueIfDestUnavailable",
                                         "responseExpected",
                                         "memory",
                                         "battery",
                                         "timezone",
                                         "region",
                                         "transactionId",
                                         "isBroadcast",
                                         "uri",
                                         "timeoutMs",
                                         "what",
                                         "filename",
                                         "timelapseminutes",
                                         "formFields",
                                         "hash",
                                         "username",
                                         "service",
                                         "passwordOld",
                                         "passwordNew",
                                         "payload"};
  const std::set<std::string> allowed = {"status 0", "status 1", "taken"};
  BusClient client(camera().busAddress());
  int odd = 0;
  for (const auto& content : oddValues()) {
    std::vector<Entry> fields;
    fields.reserve(keys.size());
    for (const auto& key : keys) {
      fields.emplace_back(key, content);
    }
    for (const auto& function : functions) {
      auto entries = fields;
      entries.emplace_back("functionName", text(function));
      const std::string outcome = client.call(map(entries));
      EXPECT_TRUE(allowed.contains(outcome))
          << function << " with value " << odd << ": " << outcome;
    }
    ++odd;
  }
}

TEST_F(BusSystem, LogLinesCannotBeForged) {
  BusClient client(camera().busAddress());
  const LogMark mark(camera());
  EXPECT_EQ(client.call(request("StartService", {{"from", text("x\nforged by from")},
                                                 {"service", text("y\nforged by service")}})),
            "status 1");
  ASSERT_TRUE(mark.waitFor("forged by service"));
  ASSERT_TRUE(mark.waitFor("forged by from"));
  const auto lines = mark.linesWith("forged");
  ASSERT_EQ(lines.size(), 2U) << mark.text();
  EXPECT_NE(lines.front().find(": There is no service \"y\\x0aforged by service\" in /etc/sv"),
            std::string::npos)
      << lines.front();
  EXPECT_NE(lines.back().find(": x\\x0aforged by from tried to start y\\x0aforged by service "
                              "service and failed"),
            std::string::npos)
      << lines.back();
}

struct Garbage {
  const char* name;
  std::string signature;
  std::string body;
  std::size_t claimedSize;
};

// The bus itself shows their senders out.
TEST_F(BusSystem, NonMessagesNeverArrive) {
  const std::string badText = Marshaller().string("\xff\xfe").data();
  const std::string cutText = Marshaller().number(100).data() + "short";
  const std::string badFlag = Marshaller().number(2).data();
  const std::string longArray = Marshaller().number(0x7fffffff).data();
  const std::string deep(40, 'a');
  const Garbage all[] = {
      {"text that is not UTF-8", "s", badText, badText.size()},
      {"text longer than the body", "s", cutText, cutText.size()},
      {"a boolean of 2", "b", badFlag, badFlag.size()},
      {"an array longer than the body", "a{sv}", longArray, longArray.size()},
      {"a signature that is too deep", deep + "s", Marshaller().number(0).data(), 4},
      {"a signature that is none", "a{s", "", 0},
      {"a body of 2 GiB", "s", badText, 0x7fffffff},
  };
  const std::string path = (camera().root() / "run/kova/bus").string();
  for (const auto& garbage : all) {
    RawConnection connection(path);
    ASSERT_TRUE(connection.login()) << garbage.name;
    ASSERT_TRUE(connection.call(garbage.signature, garbage.body, garbage.claimedSize));
    EXPECT_TRUE(connection.waitForEnd()) << garbage.name;
  }
}

// The same hand writes messages that do arrive: the test above is about their content.
TEST_F(BusSystem, MessagesArriveHoweverTheyWereWritten) {
  RawConnection connection((camera().root() / "run/kova/bus").string());
  ASSERT_TRUE(connection.login());
  ASSERT_TRUE(connection.call("s", Marshaller().string("no map").data()));
  EXPECT_TRUE(connection.receive(kInvalidMessage));
  ASSERT_TRUE(connection.call("a{sv}", std::string(8, '\0')));
  EXPECT_TRUE(connection.receive(kUnknownFunction));
}

}  // namespace
}  // namespace kova::system_test
