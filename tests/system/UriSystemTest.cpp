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

TEST_F(UriSystem, NothingStartsWithoutUri) {
  for (const Variant& uri : {Variant(""), Variant("_UNINITIALIZED_"), Variant(), Variant(7)}) {
    for (const char* what : {"snapshot", "supportInfo", "logo", "sound"}) {
      expectRefused({{"what", what}, {"uri", uri}, {"hash", "x"}}, "URI must be set");
    }
  }
}

TEST_F(UriSystem, OtherProtocolsAreRefused) {
  writeFile(inside("/tmp/user_logo_source"), picture(3, 3));
  for (const std::string uri :
       {"ftp://127.0.0.1/x", "file:///etc/passwd", "file:///tmp/user_logo_source",
        "FILE:///etc/passwd", "gopher://127.0.0.1/x", "dict://127.0.0.1/x", "smb://127.0.0.1/x",
        "scp://127.0.0.1/x", "javascript:alert(1)", "//127.0.0.1/x", "/etc/passwd"}) {
    EXPECT_EQ(fetched(uri), "TRANSFER_FAILED") << uri;
    EXPECT_EQ(requester().outcomeOf({{"what", "snapshot"}, {"uri", uri}}), "TRANSFER_FAILED")
        << uri;
  }
  std::filesystem::remove(inside("/tmp/user_logo_source"));
}

TEST_F(UriSystem, RedirectToFileIsNotFollowed) {
  const engine::RawServer server(engine::answering(
      "HTTP/1.1 302 Found\r\nLocation: file:///etc/passwd\r\nContent-Length: 0\r\n\r\n"));
  EXPECT_EQ(fetched(server.uri()), "TRANSFER_FAILED");
}

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

TEST_F(TimeOutSystem, ZeroRefusesEveryGetAndPut) {
  for (const char* what :
       {"snapshot", "supportInfo", "eventSnapshot", "eventHeatmap", "logo", "sound"}) {
    expectRefused({{"what", what},
                   {"timeoutMs", 0},
                   {"hash", "x"},
                   {"filename",
                    std::string(what) == "eventHeatmap" ? "heatmap_12.png" : "motionsnap_12.jpg"}},
                  "Timeout must be set");
  }
}

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

TEST_F(TimeOutSystem, ValueBeyondTransportRangeIsAccepted) {
  writeFile(inside("/tmp/heatmap_800.png"), "x");
  for (const char* name : {"first", "second"}) {
    get("eventHeatmap", name, {{"filename", "heatmap_800.png"}, {"timeoutMs", 4294967295U}});
    EXPECT_TRUE(arrives(name)) << name;
    requester().settle();
  }
}

}  // namespace
}  // namespace kova::system_test
