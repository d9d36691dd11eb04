#include <atomic>
#include <fstream>

#include "GetRig.h"

namespace kova::system_test {
namespace {

class SupportSystem : public GetSystem {
 protected:
  static bool archiveIsGone() { return !exists(inside("/tmp/supportinfo.tar")); }
};

TEST_F(SupportSystem, FreshArchiveArrivesAndIsRemoved) {
  writeFile(inside("/tmp/supportinfo.tar"), "an old archive");
  const std::uint64_t id = get("supportInfo", "support.tar");
  ASSERT_TRUE(arrives("support.tar"));
  const std::string archive = manager().received("support.tar")->payload;
  EXPECT_EQ(archive.substr(257, 5), "ustar");
  EXPECT_NE(archive.find("system.cfg"), std::string::npos);
  EXPECT_TRUE(eventually(archiveIsGone));
  expectSilence(id);
}

TEST_F(SupportSystem, HangingGeneratorEndsWithItsRequest) {
  camera().misbehave("support", "sleep", "1000");
  const LogMark mark(camera());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(requester().outcome(get("supportInfo", "never", {{"timeoutMs", 700}})),
              "TRANSFER_TIMEOUT");
  }
  EXPECT_TRUE(mark.waitFor(": /bin/support was still running and was ended"));
  EXPECT_TRUE(eventually([] {
    return processesOf(camera(), "support").empty() &&
           processesOf(camera(), "kova_supervisor").empty();
  })) << camera().shell("ps").out;
  camera().behave("support");
  get("supportInfo", "after-hang");
  EXPECT_TRUE(arrives("after-hang"));
}

TEST_F(SupportSystem, GrowingArchiveIsSentAtInitialSize) {
  const std::string start = picture(1500, 1500, 's');
  const auto archive = inside("/tmp/supportinfo.tar");
  std::atomic<bool> grown = false;
  const engine::RawServer server([&](engine::Connection& connection) {
    connection.readHead();
    EXPECT_TRUE(eventually([&] { return grown.load(); }));
    connection.readBody();
    connection.send(engine::okResponse(""));
  });
  camera().misbehave("support", "exit", "0");  // what it would do is done here
  const std::string toolsBefore = camera().tools();
  const std::uint64_t id = requester().ask({{"what", "supportInfo"}, {"uri", server.uri()}});
  ASSERT_TRUE(eventually([&] { return camera().tools() != toolsBefore; }));
  writeFile(inside("/tmp/archive-so-far"), start);
  std::filesystem::rename(inside("/tmp/archive-so-far"), archive);
  ASSERT_TRUE(eventually([&] { return server.connections() == 1; }));
  std::ofstream(archive, std::ios::app) << "and the rest";
  grown = true;

  ASSERT_TRUE(eventually([&] { return server.requests().size() == 1; }));
  const std::string body = server.requests()[0].body;
  EXPECT_NE(body.find("\r\n\r\n" + start + "\r\n--"), std::string::npos);
  EXPECT_TRUE(eventually(archiveIsGone));
  expectSilence(id);
}

}  // namespace
}  // namespace kova::system_test
