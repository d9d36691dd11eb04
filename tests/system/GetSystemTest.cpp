#include "TransferRig.h"

namespace kova::system_test {
namespace {

class GetSystem : public TransferRig {
 protected:
  std::uint64_t get(const std::string& what, const std::string& name, Fields more = {}) {
    more.emplace("what", what);
    more.emplace("uri", manager().uploadUri(name));
    return requester().ask(more);
  }

  static bool arrives(const std::string& name) {
    return eventually([&] { return manager().received(name).has_value(); });
  }
};

TEST_F(GetSystem, LinkToKeyIsNotSent) {
  const auto snapshot = inside("/tmp/snap.jpeg");
  std::filesystem::remove(snapshot);
  std::filesystem::create_symlink("/etc/persistent/server.pem", snapshot);
  const LogMark mark(camera());
  EXPECT_EQ(requester().outcome(get("snapshot", "planted")), "TRANSFER_FAILED");
  EXPECT_TRUE(mark.waitFor(": Refused to open /tmp/snap.jpeg: it is a symbolic link"));
  EXPECT_FALSE(manager().received("planted").has_value());
  std::filesystem::remove(snapshot);
}

TEST_F(GetSystem, HangingSupportGeneratorEndsWithItsRequest) {
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
  ASSERT_TRUE(arrives("after-hang"));
  EXPECT_EQ(manager().received("after-hang")->substr(257, 5), "ustar");
}

}  // namespace
}  // namespace kova::system_test
