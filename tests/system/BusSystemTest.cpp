#include "BusClient.h"
#include "SharedCamera.h"

namespace kova::system_test {
namespace {

using namespace std::string_literals;

constexpr char kInvalidMessage[] = "kova.Error.InvalidMessage";
constexpr std::size_t kMebibyte = 1'048'576;

class BusSystem : public UnharmedCamera {};

TEST_F(BusSystem, BusctlGetsReply) {
  const Result result = camera().shell(
      "busctl --address=unix:path=/run/kova/bus call kova.kova_ctlserver /kova kova.Ipc1 Send "
      "'a{sv}' 2 functionName s GetSystemStats responseExpected b true");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("\"statusCode\" t 0"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("\"totalKb\" u "), std::string::npos) << result.out;
}

TEST_F(BusSystem, BodiesOverOneMebibyteAreRefused) {
  BusClient client(camera().busAddress());
  const auto ofSize = [](std::size_t size) {
    return request("GetSystemStats", {{"unknown", text(std::string(size, 'x'))}});
  };
  EXPECT_EQ(client.call(ofSize(kMebibyte - 256)), "status 0");
  EXPECT_EQ(client.call(ofSize(kMebibyte)), kInvalidMessage);
  // The bus disconnects a client that exceeds its limit; others are served as before.
  EXPECT_EQ(client.call(ofSize(2 * kMebibyte)), "lost");
  EXPECT_EQ(BusClient(camera().busAddress()).call(ofSize(10)), "status 0");
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

}  // namespace
}  // namespace kova::system_test
