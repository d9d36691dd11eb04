#include "RoutingFixture.h"

namespace kova::ctlserver {
namespace {

class TransferOutcomeTest : public TransferRoutingTest {};

TEST_F(TransferOutcomeTest, EachGetUploadsItsFileAsFormPayloadWithoutEvent) {
  const std::pair<const char*, const char*> files[] = {{"snapshot", "/tmp/snap.jpeg"},
                                                       {"eventSnapshot", "/tmp/motionsnap_12.jpg"},
                                                       {"eventHeatmap", "/tmp/heatmap_12.png"}};
  for (const auto& [what, path] : files) {
    SCOPED_TRACE(what);
    startServer();
    peerAnswers("");
    write(path, std::string("content of ") + what);
    ASSERT_TRUE(ask(what, uri(),
                    {{"filename", std::filesystem::path(path).filename().string()},
                     {"formFields", Fields{{"camera", "front"}}}}));
    ASSERT_TRUE(serviceUntilRequests(1));
    const std::string body = peer_->requests()[0].body;
    EXPECT_THAT(body, HasSubstr("name=\"payload\""));
    EXPECT_THAT(body, HasSubstr(std::string("\r\n\r\ncontent of ") + what + "\r\n"));
    EXPECT_THAT(body, HasSubstr("name=\"camera\"\r\n\r\nfront\r\n"));
    EXPECT_THAT(events(), IsEmpty());
    EXPECT_TRUE(exists(path)) << "the file stays";
  }
}

TEST_F(TransferOutcomeTest, SnapshotPathIsNotTakenFromRequest) {
  write("/tmp/snap.jpeg", "picture");
  ASSERT_TRUE(ask("snapshot", uri(), {{"filename", "../etc/passwd"}}));
  ASSERT_TRUE(serviceUntilRequests(1));
  EXPECT_THAT(peer_->requests()[0].body, HasSubstr("\r\n\r\npicture\r\n"));
}

TEST_F(TransferOutcomeTest, ResponseToUploadIsHeldToTaskLimit) {
  const std::pair<const char*, std::size_t> limits[] = {{"snapshot", 200000},
                                                        {"supportInfo", 10485760},
                                                        {"eventSnapshot", 200000},
                                                        {"eventHeatmap", 65536}};
  for (const auto& [name, limit] : limits) {
    const char* const kind = name;  // a lambda cannot capture a structured binding
    for (const std::size_t size : {limit, limit + 1}) {
      SCOPED_TRACE(kind + std::string(" ") + std::to_string(size));
      startServer();
      peerAnswers(std::string(size, 'x'));
      ASSERT_TRUE(ask(kind, uri()));
      writeUploads("content");
      write("/tmp/supportinfo.tar", "content");
      EXPECT_TRUE(serviceUntil([&] { return ask(kind, uri()); })) << "the first has ended";
      EXPECT_THAT(events(), testing::ElementsAreArray(std::vector<std::string>(
                                size - limit, status("TRANSFER_TOOLARGE"))));
    }
  }
}

TEST_F(TransferOutcomeTest, AbsentPeerFailsEveryKind) {
  const std::string dead = deadUri();
  writeUploads("");
  for (const char* kind : kKinds) {
    SCOPED_TRACE(kind);
    startServer();
    ASSERT_TRUE(ask(kind, dead));
    write("/tmp/supportinfo.tar", "");
    ASSERT_TRUE(serviceUntilEvent());
    EXPECT_THAT(events()[0], EndsWith(" to=client.a id=7 TRANSFER_FAILED"));
    EXPECT_TRUE(platform().logged(4, "Transfer task failed, name=" + taskName(kind) + ", uri=" +
                                         dead + ", reason=TRANSFER_FAILED(1), httpCode=0"));
  }
}

TEST_F(TransferOutcomeTest, OtherUriSchemeFailsTransfer) {
  write("/tmp/snap.jpeg", "picture");
  for (const std::string& to : {std::string("ftp://127.0.0.1/x"), std::string("file:///etc/passwd"),
                                std::string("gopher://127.0.0.1/x"), std::string("no uri at all"),
                                std::string("http://[::1"), std::string("http://127.0.0.1:99999/"),
                                "http://127.0.0.1/" + std::string(1 << 20, 'x') + "\n",
                                uri() + "\r\n\r\nGET /forged HTTP/1.1\r\n\r\n"}) {
    for (const char* kind : {"snapshot", "logo"}) {
      SCOPED_TRACE(to.substr(0, 40));
      startServer();
      ASSERT_TRUE(ask(kind, to));
      ASSERT_TRUE(serviceUntilEvent());
      EXPECT_THAT(events(), ElementsAre(status("TRANSFER_FAILED")));
    }
  }
}

}  // namespace
}  // namespace kova::ctlserver
