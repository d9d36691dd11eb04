#include "GetRig.h"

namespace kova::system_test {
namespace {

using testing::IsEmpty;

class PairsSystem : public GetSystem {
 protected:
  /// Asks for one of each kind, "" for firmware, each with a URI of its own.
  std::map<std::string, std::uint64_t> askForAll(const engine::RawServer& server,
                                                 const std::string& path, unsigned timeoutMs) {
    std::map<std::string, std::uint64_t> ids;
    for (const std::string what :
         {"snapshot", "supportInfo", "eventSnapshot", "eventHeatmap", "logo", "sound", ""}) {
      Fields fields = {
          {"uri", server.uri(path + what)},
          {"timeoutMs", timeoutMs},
          {"hash", "x"},
          {"filename", what == "eventHeatmap" ? "heatmap_12.png" : "motionsnap_12.jpg"}};
      if (!what.empty()) {
        fields["what"] = what;
      }
      ids[what] = requester().ask(fields);
    }
    return ids;
  }
};

TEST_F(PairsSystem, OnlyRequestsWhoseWordIsTaskNameExcludeEachOther) {
  const SilentServer server;
  const LogMark mark(camera());
  auto first = askForAll(server, "/first-", 60'000);
  ASSERT_TRUE(eventually([&] { return server.connections() == 7; })) << "all seven run at once";
  // Each of these meets all seven under way.
  auto second = askForAll(server, "/second-", 1'000);
  for (const char* what : {"snapshot", "eventSnapshot", "eventHeatmap", "fw"}) {
    EXPECT_TRUE(mark.waitFor(std::string("Transfer with such name already exists, what=") + what));
  }
  // One task under two URIs: it cannot be registered beside the first transfer any more, and fails
  // under both. The first failure takes the support archive with it, and the second has nothing
  // left to send.
  for (const std::string what : {"supportInfo", "logo", "sound"}) {
    const std::vector<std::string> failures(what == "supportInfo" ? 1 : 2, "TRANSFER_FAILED");
    EXPECT_TRUE(eventually([&] {
      requester().pump();
      return requester().outcomes(second[what]) == failures;
    })) << what;
    EXPECT_THAT(requester().outcomes(first[what]), IsEmpty()) << "events go to the second alone";
  }
  for (const char* what : {"snapshot", "eventSnapshot", "eventHeatmap", ""}) {
    EXPECT_THAT(requester().outcomes(first[what]), IsEmpty()) << "the first runs on";
    EXPECT_THAT(requester().outcomes(second[what]), IsEmpty());
  }
}

}  // namespace
}  // namespace kova::system_test
