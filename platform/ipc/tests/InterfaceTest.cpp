#include <array>
#include <cstdio>
#include <future>

#include "BusTest.h"

namespace kova::ipc::testing {
namespace {

class InterfaceTest : public BusTest {
 protected:
  struct Output {
    int status;
    std::string text;
  };

  // Runs a program while servicing the endpoint.
  Output run(const std::string& command) {
    auto output = std::async(std::launch::async, [&] {
      std::string text;
      FILE* pipe = popen((command + " 2>&1").c_str(), "r");
      std::array<char, 256> chunk{};
      while (std::fgets(chunk.data(), chunk.size(), pipe) != nullptr) {
        text += chunk.data();
      }
      return Output{pclose(pipe), text};
    });
    EXPECT_TRUE(until(
        [&] { return output.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
    return output.get();
  }
  std::string busctl() const { return "busctl --address=" + privateBus_.address() + " "; }
};

TEST_F(InterfaceTest, OtherMethodsAndObjectsAreUnknown) {
  join();
  const auto error = [&](const char* path, const char* interface, const char* member) {
    return call(stranger_.newCall("test", path, interface, member).get()).error;
  };
  EXPECT_EQ(error("/kova", "kova.Ipc1", "Other"), "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(error("/kova", "kova.Ipc2", "Send"), "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(error("/other", "kova.Ipc1", "Send"), "org.freedesktop.DBus.Error.UnknownObject");
  EXPECT_EQ(error("/kova", nullptr, "Send"), "kova.Error.InvalidMessage");
}

TEST_F(InterfaceTest, BusctlCalls) {
  Recorder handler(&ipc_, "Ping", [&](BaseRequestMessage& request, bool&) {
    BaseResponseMessage response;
    response.payload("pong");
    return ipc_.SendResponse(request, response);
  });
  join();
  const std::string send = busctl() + "call kova.test /kova kova.Ipc1 Send ";
  const Output answered = run(send + "'a{sv}' 2 functionName s Ping number q 7");
  EXPECT_EQ(answered.status, 0) << answered.text;
  EXPECT_NE(answered.text.find("\"payload\" s \"pong\""), std::string::npos) << answered.text;
  EXPECT_EQ(handler.requests.at(0)["number"], Variant(std::uint32_t{7}));
  const Output refused = run(send + "s text");
  EXPECT_NE(refused.status, 0);
}

}  // namespace
}  // namespace kova::ipc::testing
