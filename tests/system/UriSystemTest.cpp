#include "GetRig.h"

namespace kova::system_test {
namespace {

using std::chrono::milliseconds;

class UriSystem : public GetSystem {
 protected:
  /// What becomes of a put from this URI.
  std::string fetched(const std::string& uri) {
    return requester().outcomeOf({{"what", "logo"}, {"uri", uri}, {"hash", "none"}});
  }
};

TEST_F(UriSystem, CredentialsGoOnlyToTheirServer) {
  std::atomic<bool> authorised = false;
  const engine::RawServer server([&](engine::Connection& connection) {
    if (connection.readRequest()) {
      authorised = connection.request().header("Authorization") == "Basic dXNlcjpzZWNyZXQ=";
      connection.send(engine::okResponse(picture(2, 2)));
    }
  });
  std::string uri = server.uri();
  uri.insert(uri.find("//") + 2, "user:secret@");
  EXPECT_EQ(requester().outcomeOf({{"what", "logo"}, {"uri", uri}, {"hash", md5(picture(2, 2))}}),
            "OK");
  EXPECT_TRUE(authorised);
}

TEST_F(UriSystem, ControlCharactersFailTransferAndForgeNoLogLine) {
  const LogMark mark(camera());
  const PlainServer server("x");
  for (const std::string text : {"\n", "\r\n\r\nGET /forged HTTP/1.1\r\n\r\n", "\x01", "\x7f",
                                 "\nNov 20 00:00:00 camera kova_ctlserver: forged"}) {
    EXPECT_EQ(fetched(server.uri("/a") + text), "TRANSFER_FAILED");
  }
  EXPECT_TRUE(mark.waitFor("forged"));
  for (const std::string& line : mark.linesWith("forged")) {
    EXPECT_NE(line.find("uri="), std::string::npos) << line;
  }
  EXPECT_EQ(server.connections(), 0U);
}

TEST_F(UriSystem, UriOfAlmostOneMebibyteEnds) {
  EXPECT_EQ(fetched("http://127.0.0.1:1/" + std::string(1'000'000, 'x')), "TRANSFER_FAILED");
  EXPECT_EQ(fetched("http://" + std::string(1'000'000, 'x') + "/"), "TRANSFER_FAILED");
}

class TimeOutSystem : public GetSystem {};

TEST_F(TimeOutSystem, EndsUnansweredTransfer) {
  const SilentServer server;
  for (const unsigned timeoutMs : {1U, 999U, 1500U}) {
    for (const char* what : {"snapshot", "logo"}) {
      const auto start = std::chrono::steady_clock::now();
      EXPECT_EQ(
          requester().outcomeOf(
              {{"what", what}, {"uri", server.uri()}, {"hash", "x"}, {"timeoutMs", timeoutMs}}),
          "TRANSFER_TIMEOUT");
      const auto took = std::chrono::steady_clock::now() - start;
      EXPECT_GE(took, milliseconds(timeoutMs / 1000 * 1000)) << "the transport counts in seconds";
      EXPECT_LT(took, milliseconds(timeoutMs + 5000));
    }
  }
}

}  // namespace
}  // namespace kova::system_test
